/// @file
/// What radarctl does without: the machine's routes stay as they are.
#pragma once

/// The library adds a host route for each receiver with the commands "sudo route" and "route". From here on
/// both do nothing: radarctl's sockets are tied to their interface, and a route that a search leaves behind
/// would lead the datagrams of a radar host on this computer out of another interface.
///
/// Call it before a thread is started: it changes PATH.
void leaveRoutesAlone();

/// Whether routes lead to the groups of discovery, of the host ids and of the streams.
bool canReachGroups();
