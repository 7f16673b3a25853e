// Which module models the tool serves, and which procedures serve them.
#pragma once

#include <array>
#include <string_view>

namespace orbix {

/// A family's entry: takes the command line, returns 0 for success or the family's error code.
using FamilyEntry = int (*)(int argc, char** argv);

/// A model name: at most 15 characters and a terminating zero. Empty slots hold the empty text.
using ModelName = char[16];

/// One chip family: its models, and its entries for upgrade and, where it has one, for readback.
struct SupportRow {
    ModelName names[25];
    FamilyEntry upgrade;
    FamilyEntry readback;  ///< null for a family that cannot read flash back
    const char* page;      ///< of the documentation: docs/PAGE.md
    /// What a typical command line has behind model and port.
    const char* typical_options;
};

/// All families, in the order in which names are looked up and listed.
extern const std::array<SupportRow, 12> support_table;

/// The row that holds a model name (exact, case-sensitive), or null.
const SupportRow* find_model(std::string_view name);

}  // namespace orbix
