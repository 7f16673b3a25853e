#include "awake.h"

#include <pthread.h>
#include <sched.h>

#include <csignal>

namespace orbix::bench {

namespace {

void stay_awake(const std::stop_token& stop, unsigned processor) {
    // A signal that another thread waits for would be lost here.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    const sched_param no_priority{};
    pthread_setschedparam(pthread_self(), SCHED_IDLE, &no_priority);
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(processor, &processors);
    pthread_setaffinity_np(pthread_self(), sizeof processors, &processors);
    while (!stop.stop_requested()) {
    }
}

}  // namespace

AwakeProcessors::AwakeProcessors() {
    for (unsigned processor = 0; processor < std::thread::hardware_concurrency(); ++processor) {
        threads_.emplace_back(stay_awake, processor);
    }
}

}  // namespace orbix::bench
