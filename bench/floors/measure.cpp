// bench_measure <n> <program> [argument ...]: starts n copies at once, waits for them and
// everything they left behind, and prints what they used as JSON. The copies' output is thrown
// away.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

pid_t start(char** command) {
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
        execv(command[0], command);
        _exit(127);
    }
    return child;
}

double seconds(const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const auto begin = std::chrono::steady_clock::now();
    for (int n = std::atoi(argv[1]); n > 0; --n) {
        start(argv + 2);
    }
    int worst = 0;
    for (int status = 0; wait(&status) > 0;) {
        worst = status > worst ? status : worst;
    }
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    rusage use{};
    getrusage(RUSAGE_CHILDREN, &use);
    std::printf(R"({"wall":%.6f,"cpu":%.6f,"rss":%ld,"status":%d})"
                "\n",
                wall.count(), seconds(use.ru_utime) + seconds(use.ru_stime), use.ru_maxrss, worst);
}
