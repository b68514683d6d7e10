// Discovery by DDS, SSDP and a broadcast beacon.

#include "discovery_implementations.h"

#include <czmq.h>
#include <dds/dds.h>
#include <libgssdp/gssdp.h>

#include <cstdlib>
#include <set>
#include <stdexcept>

namespace bench {

namespace {

using namespace std::chrono_literals;

constexpr auto kTimeOut = 10s;

double millisecondsSince(Clock::time_point start) {
    if (Clock::now() - start > kTimeOut)
        throw std::runtime_error("not all hosts found");
    return Seconds(Clock::now() - start).count() * 1e3;
}

// --------------------------------------------------------------------------------------------------- DDS

/// A participant that carries the host's record as its user data.
std::shared_ptr<void> ddsHost(int number) {
    dds_qos_t* const qos = dds_create_qos();
    const std::string record = hostRecord(number);
    dds_qset_userdata(qos, record.data(), record.size());
    if (dds_create_participant(DDS_DOMAIN_DEFAULT, qos, nullptr) < 0)
        throw std::runtime_error("dds_create_participant");
    return nullptr;
}

/// Cold: the search is the participant's own start.
class DdsFinder : public Finder {
public:
    double find(int hosts) override {
        const auto start = Clock::now();
        const dds_entity_t participant = dds_create_participant(DDS_DOMAIN_DEFAULT, nullptr, nullptr);
        const dds_entity_t reader =
            dds_create_reader(participant, DDS_BUILTIN_TOPIC_DCPSPARTICIPANT, nullptr, nullptr);
        if (participant < 0 || reader < 0)
            throw std::runtime_error("dds_create_reader");
        const dds_entity_t arrival = dds_create_readcondition(reader, DDS_NOT_READ_SAMPLE_STATE);
        const dds_entity_t wait = dds_create_waitset(participant);
        dds_waitset_attach(wait, arrival, 0);
        int found = 0;
        while (found <= hosts) { // it lists itself, too
            dds_waitset_wait(wait, nullptr, 0, DDS_SECS(1));
            void* samples[64] = {};
            dds_sample_info_t infos[64];
            const int count = dds_take(reader, samples, infos, 64, 64);
            for (int i = 0; i < count; ++i)
                found += infos[i].instance_state == DDS_ALIVE_INSTANCE_STATE ? 1 : 0;
            if (count > 0)
                dds_return_loan(reader, samples, count);
            millisecondsSince(start);
        }
        return millisecondsSince(start);
    }
};

// -------------------------------------------------------------------------------------------------- SSDP

constexpr const char* kTarget = "urn:schemas-upnp-org:service:Radar:1";

struct GObjectDeleter {
    void operator()(void* object) const { g_object_unref(object); }
};
template <class Object>
using GObjectPtr = std::unique_ptr<Object, GObjectDeleter>;

GObjectPtr<GSSDPClient> gssdpClient() {
    GObjectPtr<GSSDPClient> client(
        gssdp_client_new_full(kInterface, nullptr, 0, GSSDP_UDA_VERSION_1_0, nullptr));
    if (client == nullptr)
        throw std::runtime_error("gssdp_client_new");
    return client;
}

std::shared_ptr<void> gssdpHost(int number) {
    std::thread([number] { // ends with the process
        const auto client = gssdpClient();
        const GObjectPtr<GSSDPResourceGroup> group(gssdp_resource_group_new(client.get()));
        const std::string name = "uuid:radar-" + std::to_string(number) + "::" + kTarget;
        gssdp_resource_group_add_resource_simple(group.get(), kTarget, name.c_str(), "http://radar/");
        gssdp_resource_group_set_available(group.get(), TRUE);
        g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    })
        .detach();
    return nullptr;
}

/// Hosts answer at a random moment within the shortest time that the protocol lets a search name, 1 second.
class GssdpFinder : public Finder {
public:
    double find(int hosts) override {
        const GObjectPtr<GSSDPResourceBrowser> browser(gssdp_resource_browser_new(m_client.get(), kTarget));
        std::set<std::string> found;
        const auto note = +[](GSSDPResourceBrowser*, const char* name, GList*, gpointer set) {
            static_cast<std::set<std::string>*>(set)->insert(name);
        };
        g_signal_connect(browser.get(), "resource-available", G_CALLBACK(note), &found);
        gssdp_resource_browser_set_mx(browser.get(), 1);
        const auto start = Clock::now();
        gssdp_resource_browser_set_active(browser.get(), TRUE);
        while (found.size() < static_cast<std::size_t>(hosts)) {
            if (g_main_context_iteration(nullptr, FALSE) == FALSE)
                std::this_thread::sleep_for(100us);
            millisecondsSince(start);
        }
        return millisecondsSince(start);
    }

private:
    const GObjectPtr<GSSDPClient> m_client = gssdpClient();
};

// ------------------------------------------------------------------------------------------------ beacon

constexpr int kBeaconPort = 9999;
constexpr int kBeaconInterval = 1000; // milliseconds, the beacon's own default

struct Beacon {
    Beacon() {
        zsys_handler_set(nullptr);
        zsys_set_interface(kInterface);
        actor = zactor_new(zbeacon, nullptr);
        zsock_send(actor, "si", "CONFIGURE", kBeaconPort);
        char* const name = zstr_recv(actor);
        const bool ready = name != nullptr && *name != '\0';
        std::free(name);
        if (!ready)
            throw std::runtime_error("zbeacon");
    }
    zactor_t* actor;
};

std::shared_ptr<void> beaconHost(int number) {
    auto beacon = std::make_shared<Beacon>();
    const std::string record = hostRecord(number).substr(0, 222);
    zsock_send(beacon->actor, "sbi", "PUBLISH", record.data(), record.size(), kBeaconInterval);
    return beacon;
}

/// There is no query: every beacon is received within one interval.
class BeaconFinder : public Finder {
public:
    double find(int hosts) override {
        const auto start = Clock::now();
        zsock_send(m_beacon.actor, "sb", "SUBSCRIBE", "", std::size_t{0});
        std::set<std::string> found;
        while (found.size() < static_cast<std::size_t>(hosts)) {
            char* const from = zstr_recv(m_beacon.actor);
            zframe_t* frame = zframe_recv(m_beacon.actor);
            if (from != nullptr)
                found.insert(from);
            std::free(from);
            zframe_destroy(&frame);
            millisecondsSince(start);
        }
        return millisecondsSince(start);
    }

private:
    const Beacon m_beacon;
};

template <class Implementation>
std::unique_ptr<Finder> make() {
    return std::make_unique<Implementation>();
}

} // namespace

DiscoveryImplementation cycloneDds() {
    // Its hosts also talk to one another, each to each: more than the neighbour table holds that all
    // computers of the lab share.
    return {"CycloneDDS, cold", 1, true, ddsHost, make<DdsFinder>};
}
DiscoveryImplementation gssdp() {
    return {"GSSDP", 1, false, gssdpHost, make<GssdpFinder>};
}
DiscoveryImplementation czmqBeacon() {
    return {"czmq beacon", 1, false, beaconHost, make<BeaconFinder>};
}

} // namespace bench
