#include "core/kv_flash_tool.h"

int main(int argc, char** argv) {
    return orbix::flash_tool_main(argc, argv);
}
