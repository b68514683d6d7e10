#include "command.h"
#include "doctor/observation.h"
#include "json.h"
#include "loop.h"
#include "table.h"

#include <UdpSocket/udpsocket.h>

#include <set>

namespace {

constexpr int kNameWidth = 16;
constexpr int kAddressWidth = 20;

struct Options {
    double seconds = 3;
    bool json = false;
};

/// One interface with what was heard there.
struct Row {
    doctor::Interface interface;
    std::string mac;
    bool hasRoute;                   // the system sends to the radars' groups through it
    std::set<doctor::HostKey> hosts; // that announced themselves there
};

std::vector<Row> look(double seconds, Loop& loop) {
    const std::vector<doctor::Interface> interfaces = doctor::readInterfaces();
    const std::string route = doctor::routeTo(net::transAddr(wire::kDiscovery.address), interfaces).interface;
    const doctor::Listening heard = doctor::listen(interfaces, doctor::Seconds(seconds), true, loop);
    if (heard.stopped)
        throw Failure(kNothingFound, "stopped before the interfaces were listened to");
    std::vector<Row> rows;
    for (const doctor::Interface& interface : interfaces) {
        char mac[32] = "";
        std::string name = interface.name;
        Row row{interface, net::getMac(mac, name.data()), interface.name == route, {}};
        for (const auto& [host, heardHost] : heard.hosts)
            if (host.interface == interface.index)
                row.hosts.insert(host);
        rows.push_back(row);
    }
    return rows;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text.empty() ? "-" : text;
}

void print(const std::vector<Row>& rows, const Output& output) {
    output.write(output.styled(Output::Style::Heading,
                               padded("INTERFACE", kNameWidth) + padded("ADDRESS", kAddressWidth) +
                                   padded("MAC", 19) + "CARRIER  ROUTE  RADARS HEARD") +
                 "\n");
    for (const Row& row : rows) {
        std::vector<std::string> names;
        for (const doctor::HostKey& host : row.hosts)
            names.push_back(printable(host.name));
        const std::vector<doctor::LocalAddress>& addresses = row.interface.addresses;
        output.write(padded(printable(row.interface.name), kNameWidth) +
                     padded(addresses.empty() ? "-" : doctor::text(addresses.front()), kAddressWidth) +
                     padded(row.mac, 19) + padded(row.interface.carrier ? "yes" : "no", 9) +
                     padded(row.hasRoute ? "yes" : "no", 7) + joined(names) + "\n");
        for (std::size_t i = 1; i < addresses.size(); ++i)
            output.write(padded("", kNameWidth) + doctor::text(addresses[i]) + "\n");
    }
}

nlohmann::ordered_json toJson(const Row& row) {
    nlohmann::ordered_json object{{"name", row.interface.name},
                                  {"addresses", nlohmann::ordered_json::array()},
                                  {"mac", row.mac},
                                  {"up", row.interface.up},
                                  {"carrier", row.interface.carrier},
                                  {"multicastRoute", row.hasRoute},
                                  {"radars", nlohmann::ordered_json::array()}};
    for (const doctor::LocalAddress& address : row.interface.addresses)
        object["addresses"].push_back(doctor::text(address));
    for (const doctor::HostKey& host : row.hosts) {
        nlohmann::ordered_json radar;
        addName(radar, host.name);
        radar["hostId"] = host.id != 0 ? nlohmann::ordered_json(host.id) : nlohmann::ordered_json(nullptr);
        radar["source"] = doctor::text(host.source);
        object["radars"].push_back(radar);
    }
    return object;
}

int interfaces(const Options& options, Output& output) {
    Loop loop;
    const std::vector<Row> rows = look(options.seconds, loop);
    if (options.json) {
        nlohmann::ordered_json document = jsonDocument();
        document["interfaces"] = nlohmann::ordered_json::array();
        for (const Row& row : rows)
            document["interfaces"].push_back(toJson(row));
        output.write(jsonText(document, false));
    } else {
        print(rows, output);
    }
    for (const Row& row : rows)
        if (!row.hosts.empty())
            return kFound;
    return kNothingFound;
}

} // namespace

void addInterfaces(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax =
        line.command("interfaces", "Print the local interfaces, and whether a radar is heard there",
                     [options](Output& output) { return interfaces(*options, output); });
    syntax.flag("--json", options->json, "Print JSON");
    syntax.option("--seconds", options->seconds, "S", "How long to listen (default 3)",
                  checkSeconds(1, "duration"));
}
