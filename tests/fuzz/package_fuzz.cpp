// Arbitrary bytes as the layout of an AG3335 or AG3352 firmware package, and as a `-f` list.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "ag3335/package.h"
#include "campaign/scenario.h"
#include "core/kv_log.h"
#include "fuzz/fuzzed.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orbix;
    static std::FILE* const nowhere = std::fopen("/dev/null", "w");
    set_log_stream(nowhere);
    fuzz::prepare();
    std::filesystem::create_directories("package");
    campaign::put_file("package/flash_download.cfg", {data, size});
    package::Package package;
    package.directory = "package/";
    package::parse_upgrade_list(std::string(reinterpret_cast<const char*>(data), size).c_str(),
                                package.list);
    fuzz::require(package.list.size() <= package::most_images, "the list is bounded");
    package::Layout layout;
    package::auto_find_upgrade_file(package, layout);
    fuzz::require(layout.entries.size() <= package::most_images, "the layout is bounded");
    for (const auto& entry : layout.entries) {
        fuzz::require(entry.file.size() <= 255, "names are clipped");
    }
    return 0;
}
