#include <UdpSocket/netiphelper.h>

#include <cstdio>
#include <cstdlib>

namespace net {

bool tNetIPHelper::SystemCmd(std::string cmd, bool show) {
    const std::string line = show ? cmd : cmd + " > /dev/null 2>&1";
    if (std::system(line.c_str()) != 0)
        return false;
    std::printf("@%s\r\n", cmd.c_str());
    return true;
}

} // namespace net
