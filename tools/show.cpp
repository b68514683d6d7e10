#include "json.h"
#include "search.h"
#include "table.h"

#include <UdpSocket/udpsocket.h>

namespace {

struct Options {
    SearchOptions search;
    std::string name;
    bool json = false;
};

void print(const radar::Radar& radar, const radar::LocalAddress& local, const Output& output) {
    output.write(output.styled(Output::Style::Heading, printable(radar.name)) + "\n");
    output.write("host id             " + hostIdText(radar.hostId) + "\n");
    output.write("announced from      " + std::string(net::transAddr(radar.source)) + ", " +
                 ageText(radar.age) + "\n");
    output.write(
        "own address         " +
        (radar.streams[0].head == 0 ? "not announced" : std::string(net::transAddr(radar.streams[0].head))) +
        "\n");
    output.write("heard on            " + std::string(net::transAddr(local.address)) + "\n");
    for (std::size_t i = 0; i < radar.streams.size(); ++i) {
        const RadarAddress& record = radar.streams[i];
        output.write(output.styled(Output::Style::Heading, "stream " + std::to_string(i)) +
                     (record.isMulti != 0 ? ", dedicated number " + std::to_string(record.multiNum) : "") +
                     "\n");
        for (const EndpointName& name : kEndpointNames) {
            const RadarEndpoint& endpoint = record.*name.endpoint;
            output.write("  " + padded(name.name, 18) + padded(endpointText(endpoint), 22) +
                         (isAnnounced(endpoint) ? kindText(endpoint.type) : "not announced") + "\n");
        }
        for (std::size_t device = 0; device < InfoDeviceEndpoints::size(); ++device)
            if (isAnnounced(record.infoDev[device]))
                output.write("  " + padded("information " + std::to_string(device), 18) +
                             padded(endpointText(record.infoDev[device]), 22) + "udp\n");
    }
}

int show(const Options& options, Output& output) {
    Search search(options.search);
    const radar::Radar radar = search.find(options.name);
    const radar::LocalAddress local = search.watch().localAddress();
    if (options.json) {
        nlohmann::ordered_json document = jsonDocument();
        addLocalAddress(document, local);
        document["radar"] = toJson(radar);
        output.write(jsonText(document, false));
    } else {
        print(radar, local, output);
    }
    return kFound;
}

} // namespace

void addShow(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("show", "Print every endpoint of every stream of one radar",
                                 [options](Output& output) { return show(*options, output); });
    syntax.required("name", options->name, "NAME", "The radar's name as list prints it");
    addSearchOptions(syntax, options->search);
    syntax.flag("--json", options->json, "Print JSON");
}
