// A disk that is full after so many bytes, for any user and without a file system of its own.
#ifndef TESTS_SUPPORT_FILE_SIZE_LIMIT_H
#define TESTS_SUPPORT_FILE_SIZE_LIMIT_H

#include <signal.h>
#include <sys/resource.h>

#include <stdexcept>

// While it lives, no file of this process can be written beyond `bytes`: the write that crosses the limit is short, the
// next one fails with EFBIG. Keep assertions outside its scope: what they print may go to a file.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) : previous_handler_(signal(SIGXFSZ, SIG_IGN))
    {
        if (getrlimit(RLIMIT_FSIZE, &previous_) != 0) {
            throw std::runtime_error("no file size limit");
        }
        struct rlimit limit = previous_;
        limit.rlim_cur = bytes;
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            throw std::runtime_error("no file size limit");
        }
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &previous_);
        signal(SIGXFSZ, previous_handler_);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;

  private:
    struct rlimit previous_ {};
    void (*previous_handler_)(int);
};

#endif
