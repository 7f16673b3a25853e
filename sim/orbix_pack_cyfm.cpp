// orbix_pack_cyfm: makes a firmware package for HD8xx0 modules from an image.
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cyfm_package.h"

namespace {

constexpr int usage_error = 2;

constexpr const char* help =
    "orbix_pack_cyfm: makes a firmware package for HD8xx0 modules from an image\n"
    "\n"
    "Usage: orbix_pack_cyfm [--master] IMAGE PACKAGE\n"
    "\n"
    "  --master  put 64 KiB in front of the image: a package for -f in the mode all_user, which\n"
    "            leaves them out\n"
    "  --help    print this text\n";

int pack(bool for_master, const std::string& image_path, const std::string& package_path) {
    std::ifstream input(image_path, std::ios::binary);
    const std::vector<char> content{std::istreambuf_iterator<char>(input),
                                    std::istreambuf_iterator<char>()};
    if (!input) {
        std::fprintf(stderr, "orbix_pack_cyfm: %s cannot be read\n", image_path.c_str());
        return 1;
    }
    const std::vector<std::uint8_t> image(content.begin(), content.end());
    const std::vector<std::uint8_t> package =
        for_master ? orbix::sim::make_master_cyfm(image) : orbix::sim::make_cyfm(image);
    std::ofstream output(package_path, std::ios::binary);
    std::copy(package.begin(), package.end(), std::ostreambuf_iterator<char>(output));
    output.close();
    if (!output) {
        std::fprintf(stderr, "orbix_pack_cyfm: %s cannot be written\n", package_path.c_str());
        return 1;
    }
    std::printf("%s: %zu bytes, image %zu bytes\n", package_path.c_str(), package.size(),
                image.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words == std::vector<std::string>{"--help"}) {
        std::fputs(help, stdout);
        return 0;
    }
    const bool for_master = !words.empty() && words[0] == "--master";
    const std::size_t first = for_master ? 1 : 0;
    if (words.size() != first + 2) {
        std::fputs(help, stderr);
        return usage_error;
    }
    try {
        return pack(for_master, words[first], words[first + 1]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "orbix_pack_cyfm: %s\n", error.what());
        return 1;
    }
}
