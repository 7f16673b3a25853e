// Memory that a program shares with the processes it forks.
#pragma once

#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <new>

namespace orbix::campaign {

/// An object in such memory, for as long as the program runs. Ends the program when there is none.
template <typename Content>
Content* share() {
    void* const memory =
        mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("mmap");
        std::exit(2);
    }
    return new (memory) Content{};
}

}  // namespace orbix::campaign
