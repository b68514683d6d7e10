/// @file
/// Radars as JSON. Every object that radarctl prints has the member "schema"; its number changes when a key
/// is renamed, removed or given another meaning, not when one is added.
#pragma once

#include <RadarWatch/radarwatch.h>

#include <nlohmann/json.hpp>

#include <string>

/// An object with the schema version. Keys keep their order.
nlohmann::ordered_json jsonDocument();

/// A radar's name as text ("name", what is no UTF-8 replaced) and exactly ("nameHex").
void addName(nlohmann::ordered_json& object, const std::string& name);

/// Null for an endpoint that the radar does not announce.
nlohmann::ordered_json toJson(const NetAddress& endpoint);
nlohmann::ordered_json toJson(const radar::Radar& entry);
/// As members of an object.
void addLocalAddress(nlohmann::ordered_json& object, const radar::LocalAddress& local);

/// One line of plain ASCII, or indented. Ends with a line end.
std::string jsonText(const nlohmann::ordered_json& document, bool oneLine);
