/// @file
/// Network management of the machine: watches a wired interface, and configures it with system commands.
///
/// These classes change the network of the machine that they run on, and need the rights to do so.
#pragma once

#include <string>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // interfaces keep exactly their slots
#endif

namespace net {

class tNetIPHelperPrivate;

/// Hears the address of a watched interface.
class __attribute__((visibility("default"))) iNetIPListener {
public:
    /// The address has changed. Called with no lock of the listener list held: on the watch thread; with
    /// "0.0.0.0" also on the thread that restarts the network, and on the one that adds the listener. The
    /// last call ends before the destructor of the watching object returns. Must not destroy the object that
    /// calls it, nor restart the network.
    /// @param ifname      the watched interface
    /// @param ip          the address now in force, dotted; "0.0.0.0" when there is none
    /// @param dhcpAddress true when an address expected from DHCP was found on the interface itself; false
    /// for
    ///                    the manual address, and for none
    virtual void OnNetIPChanged(const std::string& ifname, const std::string& ip, bool dhcpAddress) = 0;
};

/// Keeps an address on one wired interface and tells its listeners which one is in force.
///
/// Once a second the watch thread reads the carrier. When it comes up, the network is restarted as by
/// NetworkRestart. While it is up, the thread looks the address up; in manual mode, and in DHCP mode without
/// an address, it puts the manual address on the interface. Every change is printed and told to the
/// listeners; a lost carrier is a change to "0.0.0.0".
///
/// Life cycle: watches from construction to destruction. Each instance should watch an interface of its own.
/// Threads: one watch thread; all operations may be called from any thread at any time, except that no
/// operation may overlap with construction or destruction. While it runs a command the watch thread has the
/// signal mask of the thread that made the object, which the command inherits, and may take a signal.
/// Ownership: listeners are not owned and must outlive the object, or be removed while it is silent.
/// Process: belongs to the one that made it. A program may end while it stands, also while a restart waits.
/// In a child made by fork the destructor does nothing.
/// Errors: none are reported. A failed command is repeated a second later, as long as the address is missing.
/// A command in which an interface name, address or netmask is anything but plain counts as failed: it
/// reaches no shell.
/// Memory that ran out on the watch thread, a listener's included, or descriptors for its look, cost the pass
/// at hand, with a line on standard error. The next pass makes good a report or restart that
/// was cut short, so a listener may hear the same again. Anything else that a listener throws on that thread
/// ends the process.
class __attribute__((visibility("default"))) tNetIPHelper {
public:
    /// Starts to watch; the first look is a second later.
    /// @throws std::system_error where the system has no thread left; nothing is left behind
    /// @param dhcp     true expects the address from DHCP, with the manual address to fall back on
    /// @param ifname   the interface, for example "eth0"
    /// @param manualIp address of manual mode, dotted
    /// @param netmask  netmask of the manual address, dotted; the tool nmcli takes /24 instead
    tNetIPHelper(bool dhcp, std::string ifname, std::string manualIp, std::string netmask);
    /// Ends the watch, and a restart that its thread has begun. Waits for a callback of this object and for a
    /// command of the watch thread in progress, and for nothing else: not for commands of other watches.
    /// Addresses and profiles stay as they are.
    ~tNetIPHelper();
    tNetIPHelper(const tNetIPHelper&) = delete;
    tNetIPHelper& operator=(const tNetIPHelper&) = delete;

    /// Adds a listener and at once tells it "0.0.0.0"; the address in force follows with its next change.
    /// What the listener throws reaches the caller; it is not added then.
    void AddNetIPListener(iNetIPListener* listener);
    /// Removes every entry of the listener. A round of calls that is under way may still reach it.
    void RemoveNetIPListener(iNetIPListener* listener);

    /// The address last looked up, or "0.0.0.0".
    std::string GetNetIP() const;

    /// Which tool configures the network, for all instances: true nmcli, false (as at first) ifconfig and
    /// udhcpc.
    static void SetNetworkToolType(bool nmcli);

    /// Holds restarts back (false) or lets them run (true, as at first). A restart waits before its first
    /// command.
    static void SetResetReady(bool ready);

    /// Replaces the command that restarts the network service, at first "service network-manager restart". It
    /// is handed to the shell as it stands.
    static void NetResetCmd(std::string cmd);

    /// Restarts the network and configures every watched interface again, on the calling thread, waiting for
    /// each command. The watch threads only follow their carriers meanwhile. Every listener hears "0.0.0.0",
    /// and later the address that its interface then has, the same or another. Restarts run one at a time.
    /// What a listener throws reaches the caller and gives the restart up; every watch goes on.
    static void NetworkRestart();

    /// Prints the name and address of every local interface.
    static void PrintLocalNetIP();

    /// Whether the interface has a link; false also for an interface that is down or unknown, and where the
    /// system has no descriptor or memory for a look.
    static bool GetNetCarrier(std::string ifname);

    /// Runs a shell command through system(3) and waits for its end. Any thread; no state. A program that
    /// ignores SIGCHLD is told of every command that it failed.
    /// @param cmd  handed to the shell as it stands
    /// @param show false discards what the command writes
    /// @return true when the command ended with status 0; then "@" and the command are printed as one line
    static bool SystemCmd(std::string cmd, bool show);

private:
    tNetIPHelperPrivate* d;
};

} // namespace net

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
