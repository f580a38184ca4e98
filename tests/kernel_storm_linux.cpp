#include <sys/types.h>

#include <csignal>

#include "kernel_storm.h"

namespace test {

const unsigned storm_processes = 4, storm_threads_a_process = 4;
const bool storm_kills_anywhere = true;
const unsigned storm_rounds = 120;

void stop_process(uint32_t process) {
    kill(static_cast<pid_t>(process), SIGSTOP);
}
void continue_process(uint32_t process) {
    kill(static_cast<pid_t>(process), SIGCONT);
}

}  // namespace test
