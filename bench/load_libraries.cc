// Loads libraries, calls a function of one that is followed by "function()", and writes what it took to descriptor 3:
// seconds by the clock, and of the processor. Linked to nothing, so that no library is there before it is asked for.
//
// Usage: load-libraries (LIBRARY | FUNCTION())...
#include <dlfcn.h>
#include <time.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

double Seconds(clockid_t clock)
{
    timespec t{};
    (void)clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// The text that the function gives; "" when there is none.
std::string Ask(void *library, const std::string &function)
{
    const auto ask = reinterpret_cast<const char *(*)()>(dlsym(library, function.c_str()));
    const char *const answer = ask != nullptr ? ask() : nullptr;
    return answer != nullptr ? answer : "";
}

bool LoadAndAsk(const std::vector<std::string> &arguments)
{
    void *library = nullptr;
    for (const std::string &argument : arguments) {
        if (argument.ends_with("()")) {
            if (Ask(library, argument.substr(0, argument.size() - 2)).empty()) {
                (void)fprintf(stderr, "no answer from %s\n", argument.c_str());
                return false;
            }
        } else if ((library = dlopen(argument.c_str(), RTLD_NOW | RTLD_LOCAL)) == nullptr) {
            (void)fprintf(stderr, "%s\n", dlerror());
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const double wall = Seconds(CLOCK_MONOTONIC);
    const double cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID);
    if (!LoadAndAsk(arguments)) {
        return 1;
    }
    const double wall_taken = Seconds(CLOCK_MONOTONIC) - wall;
    const double cpu_taken = Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu;
    return dprintf(3, "%.9f %.9f\n", wall_taken, cpu_taken) > 0 ? 0 : 1;
}
