// The one JSON type of brenloc: an object keeps its keys in the order they were inserted, which is the
// order in which clients read them.
#pragma once

#include <nlohmann/json.hpp>

namespace brenloc {

using json = nlohmann::ordered_json;

}  // namespace brenloc
