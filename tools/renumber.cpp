#include "search.h"
#include "table.h"

#include <UdpSocket/udpsocket.h>

#include <algorithm>
#include <map>
#include <set>

namespace {

struct Options {
    SearchOptions search;
    std::string name;
};

/// The radars that are to give their ids up, until each has one of its own.
class Renumbering {
public:
    Renumbering(radar::Watch& watch, const radar::Radar& radar) : m_watch(watch), m_name(radar.name) {
        const std::vector<radar::Radar> listed = entriesOf(watch.radars());
        m_objected[radar.name] = radar.hostId;
        m_held[radar.name] = radar.hostId;
        const auto shared = sharedIds(listed);
        if (const auto holders = shared.find(radar.hostId); holders != shared.end())
            for (const std::string& name : holders->second)
                m_objected[name] = radar.hostId;
        object(radar.hostId, listed);
    }

    /// Objects where that is needed. @return whether nothing is left to do
    bool goOn(const std::vector<radar::Radar>& listed) {
        m_held.clear();
        for (const radar::Radar& radar : listed)
            if (const auto known = m_objected.find(radar.name); known != m_objected.end())
                m_held[radar.name] = radar.hostId;
        std::set<int> again; // a holder of id 1 takes the first objection after its own for that one's echo
        for (const auto& [name, id] : m_held)
            if (id == m_objected[name])
                again.insert(id);
        for (const int id : again)
            object(id, listed);
        return again.empty() && m_held.contains(m_name) && !objectToShared(listed);
    }

    std::set<std::string> names() const {
        std::set<std::string> names;
        for (const auto& [name, id] : m_objected)
            names.insert(name);
        return names;
    }
    /// "A 60, B 41"
    std::string ids() const {
        std::string text;
        for (const auto& [name, id] : m_held)
            text += (text.empty() ? "" : ", ") + printable(name) + " " + hostIdText(id);
        return text;
    }
    /// What was found shared on the way here, and objected to.
    const std::string& story() const { return m_story; }
    int objections() const { return m_objections; }
    /// The id that the radar holds as far as is known.
    int held() const {
        const auto radar = m_held.find(m_name);
        return radar != m_held.end() ? radar->second : m_objected.at(m_name);
    }
    bool isThere() const { return m_held.contains(m_name); }
    bool hasMoved() const { return held() != m_objected.at(m_name); }

private:
    bool objectToShared(const std::vector<radar::Radar>& listed) {
        bool any = false;
        for (const auto& [id, names] : sharedIds(listed)) {
            if (std::ranges::none_of(names, [this](const auto& name) { return m_objected.contains(name); }))
                continue; // that is no work of ours
            const bool allDrew =
                std::ranges::all_of(names, [this](const auto& name) { return m_objected.contains(name); });
            m_story += inWords(names) +
                       (allDrew ? names.size() == 2 ? " both drew " : " all drew " : " hold ") +
                       std::to_string(id) + "; objected again: ";
            for (const std::string& name : names)
                m_objected[name] = id;
            object(id, listed);
            any = true;
        }
        return any;
    }

    /// Reaches every holder of the id.
    void object(int id, const std::vector<radar::Radar>& listed) {
        const auto holder = std::ranges::find(listed, id, &radar::Radar::hostId);
        if (holder == listed.end())
            return;
        if (m_watch.renumber(holder->name))
            ++m_objections;
    }

    radar::Watch& m_watch;
    const std::string m_name;
    std::map<std::string, int> m_objected; // the id that each was last told to give up, by name
    std::map<std::string, int> m_held;     // by name, of those
    std::string m_story;
    int m_objections = 0;
};

int renumber(const Options& options, Output& output) {
    Search search(options.search);
    const radar::Radar before = search.find(options.name);
    const std::string name = printable(before.name);
    if (before.hostId == 0)
        throw Failure(kNothingFound, name + " is not in the plan of host ids, so there is none to object to");
    Renumbering renumbering(search.watch(), before);
    const std::string id = std::to_string(before.hostId);
    output.write("sent an objection to host id " + id + " to " + endpointText(wire::kNegotiation) + " on " +
                 net::transAddr(search.watch().localAddress().address) + "; waiting for " +
                 inWords(renumbering.names()) + " to negotiate another\n");
    const Search::End end =
        search.until([&](const std::vector<radar::Radar>& radars) { return renumbering.goOn(radars); });
    const int count = renumbering.objections();
    const std::string sent = count == 1 ? "" : " after " + std::to_string(count) + " objections";
    if (end != Search::End::Enough && !renumbering.hasMoved())
        throw Failure(kNothingFound, renumbering.story() + name +
                                         (renumbering.isThere() ? " still announces host id " +
                                                                      std::to_string(renumbering.held())
                                                                : " has left") +
                                         sent);
    if (!renumbering.story().empty())
        output.write(renumbering.story() + renumbering.ids() + "\n");
    else
        output.write(name + " now has host id " + std::to_string(renumbering.held()) +
                     (renumbering.names().size() > 1 ? " (" + renumbering.ids() + ")" : "") + sent + "\n");
    return kFound;
}

} // namespace

void addRenumber(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("renumber", "Make a radar's host negotiate another host id",
                                 [options](Output& output) { return renumber(*options, output); });
    syntax.required("name", options->name, "NAME", "The radar's name as list prints it");
    addSearchOptions(syntax, options->search);
}
