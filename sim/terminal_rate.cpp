// In a file of its own: the kernel's terminal header, which knows rates of any value, and the C
// library's cannot be included together.
#include "terminal_rate.h"

#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <sys/ioctl.h>

namespace orbix::sim {

unsigned terminal_rate(int descriptor) {
    termios2 settings{};
    return ioctl(descriptor, TCGETS2, &settings) == 0 ? settings.c_ospeed : 0;
}

}  // namespace orbix::sim
