#include "core/kv_flash_tool.h"
#include "platform/platform.h"

int main(int argc, char** argv) {
    orbix::platform::settle_standard_streams();
    return orbix::flash_tool_main(argc, argv);
}
