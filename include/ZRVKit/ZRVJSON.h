#pragma once
// Dictionaries read from and written to JSON keep the document's member order.

#include <nlohmann/json.hpp>

using ZRVJSON = nlohmann::ordered_json;
