#include <UdpSocket/netiphelper.h>

#include <UdpSocket/detail/netip_watcher.h>
#include <UdpSocket/udpsocket.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace net {

tNetIPHelper::tNetIPHelper(bool dhcp, std::string ifname, std::string manualIp, std::string netmask)
    : d(tNetIPHelperPrivate::start(dhcp, std::move(ifname), std::move(manualIp), std::move(netmask))) {}
tNetIPHelper::~tNetIPHelper() {
    d->end();
}
void tNetIPHelper::AddNetIPListener(iNetIPListener* listener) {
    d->AddNetIPListener(listener);
}
void tNetIPHelper::RemoveNetIPListener(iNetIPListener* listener) {
    d->RemoveNetIPListener(listener);
}
std::string tNetIPHelper::GetNetIP() const {
    return d->GetNetIP();
}
void tNetIPHelper::SetNetworkToolType(bool nmcli) {
    tNetIPHelperPrivate::s_netWorkTool = nmcli;
}
void tNetIPHelper::SetResetReady(bool ready) {
    tNetIPHelperPrivate::SetResetReady(ready);
}
void tNetIPHelper::NetResetCmd(std::string cmd) {
    tNetIPHelperPrivate::NetResetCmd(std::move(cmd));
}
void tNetIPHelper::NetworkRestart() {
    tNetIPHelperPrivate::NetworkRestart(nullptr);
}

void tNetIPHelper::PrintLocalNetIP() {
    std::string text = "\r\n----------------------------------------------\r\nLocal Net IP: \r\n";
    for (const auto& [address, interface] : localNetworkInterfaces())
        text += interface.name + " : " + interface.ip + "\r\n";
    text += "----------------------------------------------\r\n";
    std::fputs(text.c_str(), stdout);
}

bool tNetIPHelper::GetNetCarrier(std::string ifname) {
    std::ifstream file("/sys/class/net/" + ifname + "/carrier");
    bool carrier = false;
    for (std::string line; std::getline(file, line);)
        if (!(std::istringstream(line) >> carrier))
            carrier = false;
    return carrier;
}

bool tNetIPHelper::SystemCmd(std::string cmd, bool show) {
    const std::string line = show ? cmd : cmd + " > /dev/null 2>&1";
    if (std::system(line.c_str()) != 0)
        return false;
    std::printf("@%s\r\n", cmd.c_str());
    return true;
}

} // namespace net
