/// @file
/// What radarctl leaves out where it runs without privileges.
#pragma once

#include <string>

/// The library adds a host route for each receiver with the commands "sudo route" and "route". From here on
/// that sudo, for a person without privileges, is one that never asks for a password.
///
/// Call it before a thread is started: it changes PATH.
void askForNoPassword();

/// Whether a host route for the discovery group leads through the interface; such a route is what the library
/// tries to add.
bool hasDiscoveryRoute(const std::string& interface);

/// Whether any route leads to the radars' groups.
bool canReachGroups();
