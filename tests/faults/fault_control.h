// The test's side of a fault plan: arms it, and reads what became of it.
#ifndef TESTS_FAULTS_FAULT_CONTROL_H
#define TESTS_FAULTS_FAULT_CONTROL_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>

#include "faults/fault_plan.h"

class FaultControl {
  public:
    // file   where the plan lies; made here, outside of `below`
    // below  the directory whose files count
    FaultControl(const std::filesystem::path &file, const std::filesystem::path &below) : file_(file), below_(below)
    {
        const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0 || ftruncate(fd, sizeof(FaultPlan)) != 0) {
            throw std::runtime_error("no fault plan");
        }
        void *mapped = mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (mapped == MAP_FAILED) {
            throw std::runtime_error("no fault plan");
        }
        plan_ = static_cast<FaultPlan *>(mapped);
    }
    ~FaultControl() { munmap(plan_, sizeof(FaultPlan)); }
    FaultControl(const FaultControl &) = delete;
    FaultControl &operator=(const FaultControl &) = delete;

    static std::string Library() { return std::string(VT_TEST_BUILD_DIR) + "/tests/faults/libfault_injection.so"; }

    // What the program under test is started with, beside LD_PRELOAD = Library(). A library that must come first (a
    // sanitizer's) lets this one pass before it.
    std::map<std::string, std::string> Environment() const
    {
        return {{"VT_FAULT_PLAN", file_},
                {"VT_FAULT_BELOW", below_},
                {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0:allocator_may_return_null=1"}};
    }

    // A process whose calls count, and how many descriptors it has open, as Open says.
    struct Owner {
        int32_t process = 0;  // 0 = nobody yet
        int64_t open = 0;
    };

    // The next process that comes to its main() is the one whose calls count. Returns whose did until now.
    Owner ForNextProcess() { return For({}); }

    // From now on this process's calls count. It must have been idle while others' did.
    Owner For(const Owner &owner)
    {
        const Owner before{plan_->owner, plan_->open};
        plan_->open = owner.open;
        plan_->owner = owner.process;
        return before;
    }

    // Let this call fail from now on; begin = the end of a path: counting begins when it is opened.
    void Arm(FaultCall call, FaultMode mode, uint64_t at, const std::string &begin = "")
    {
        plan_->armed = fault_off;
        plan_->call = call;
        plan_->mode = mode;
        plan_->at = at;
        plan_->failed = 0;
        plan_->path[0] = '\0';
        for (auto &made : plan_->made) { made = 0; }
        const size_t length = begin.copy(plan_->begin, sizeof(plan_->begin) - 1);
        plan_->begin[length] = '\0';
        plan_->armed = begin.empty() ? fault_counting : fault_waiting;
    }
    void Disarm() { plan_->armed = fault_off; }

    uint64_t Made(FaultCall call) const { return plan_->made[call]; }
    bool Reached() const { return plan_->failed != 0; }

    // How many descriptors the process has open on files below the directory and on connections that it accepted.
    int64_t Open() const { return plan_->open; }

    // The file of the first call that failed.
    std::string Path() const { return plan_->path; }

  private:
    std::string file_;
    std::string below_;
    FaultPlan *plan_ = nullptr;
};

#endif
