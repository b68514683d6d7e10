#include <UdpSocket/multiradarclient.h>

#include <UdpSocket/detail/radar_client.h>

#include <atomic>

MultiRadarClient* MultiRadarClient::m_instance = nullptr;

MultiRadarClient::MultiRadarClient() : d(new MultiRadarClientPrivate) {}
MultiRadarClient::~MultiRadarClient() {
    delete d;
}

MultiRadarClient* MultiRadarClient::getInstance() {
    static MultiRadarClient sInstance;
    MultiRadarClient* const given = std::atomic_ref(m_instance).load();
    return given != nullptr ? given : &sInstance;
}

void MultiRadarClient::setInstance(MultiRadarClient* instance) {
    std::atomic_ref(m_instance).store(instance);
}

void MultiRadarClient::addListener(iMultiRadarCheckerListener* listener) {
    d->checker().addListener(listener);
}
void MultiRadarClient::removeListener(iMultiRadarCheckerListener* listener) {
    d->checker().removeListener(listener);
}
void MultiRadarClient::setLocalIP(unsigned int ip) {
    d->checker().setLocalIP(ip);
}
void MultiRadarClient::query() {
    d->query();
}
void MultiRadarClient::resetRadar() {
    d->resetRadar();
}
int MultiRadarClient::getRadar(char (*names)[24], int max) const {
    return d->getRadar(names, max);
}
std::vector<std::string> MultiRadarClient::getRadar() const {
    return d->getRadar();
}
const RadarAddress* MultiRadarClient::getAddress(const char* name, int stream) const {
    return d->getAddress(name, stream);
}
int MultiRadarClient::getRadarStreamCount(const char* name) const {
    return d->getRadarStreamCount(name);
}
void MultiRadarClient::queryForAdjust(const char* name) {
    d->queryForAdjust(name);
}
