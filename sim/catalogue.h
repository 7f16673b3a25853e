// Which model stands behind which name.
#pragma once

#include <memory>
#include <string_view>

#include "model.h"

namespace orbix::sim {

/// The simulated module of that model name, or null when there is none.
std::unique_ptr<Model> make_model(std::string_view name);

}  // namespace orbix::sim
