/// @file
/// Records and what was odd about their origin, as text for people.
#pragma once

#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/radaraddress.h>

#include <cstdint>
#include <string>

/// "236.6.7.8:6678"
std::string netAddrToString(NetAddress address);

/// The seven endpoints, a line each.
std::string recordText(const RadarAddress& record);

/// Writes the record to standard output unless it was the one written last. Any thread.
void printRadarAddrs(const RadarAddress& record);

/// Writes a line to standard output for an ARPA stream port that no host uses, and one where it lies behind
/// the last host's.
void printOddPort(std::uint16_t port, const plan::HostNumber& number);
