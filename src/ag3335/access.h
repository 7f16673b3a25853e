// Whether what the operator names can be read, asked before the port is opened.
#pragma once

namespace orbix {

/// Whether a file or folder may be read. Prints the ERROR line when not.
bool check_access(const char* path);

}  // namespace orbix
