// Owners for the library's handles, for C++ callers: one unique_ptr a handle, so that no path forgets to end it.
//
// release() appears only where ownership leaves for C. A file that was written is closed by hand and its result looked
// at: a full disk often speaks first at fclose.
#ifndef VELTRANE_OWNED_H
#define VELTRANE_OWNED_H

#ifdef __cplusplus

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include <veltrane/buffer.h>
#include <veltrane/class.h>
#include <veltrane/csv.h>
#include <veltrane/dbm_api.h>
#include <veltrane/dir.h>
#include <veltrane/eval_context.h>
#include <veltrane/json.h>
#include <veltrane/map.h>
#include <veltrane/policy.h>
#include <veltrane/rlist.h>
#include <veltrane/seq.h>
#include <veltrane/set.h>
#include <veltrane/var_ref.h>
#include <veltrane/variable.h>
#include <veltrane/writer.h>

namespace veltrane {

template <auto destroy>
struct Destroyer {
    void operator()(auto *p) const { destroy(p); }
};

using TextPtr = std::unique_ptr<char, Destroyer<free>>;
using FilePtr = std::unique_ptr<FILE, Destroyer<fclose>>;
using SeqPtr = std::unique_ptr<Seq, Destroyer<SeqDestroy>>;
using SeqViewPtr = std::unique_ptr<Seq, Destroyer<SeqSoftDestroy>>;  // a view: the items belong to another Seq
using MapPtr = std::unique_ptr<Map, Destroyer<MapDestroy>>;
using StringMapPtr = std::unique_ptr<StringMap, Destroyer<StringMapDestroy>>;
using StringSetPtr = std::unique_ptr<StringSet, Destroyer<StringSetDestroy>>;
using BufferPtr = std::unique_ptr<Buffer, Destroyer<BufferDestroy>>;
using RlistPtr = std::unique_ptr<Rlist, Destroyer<RlistDestroy>>;
using JsonPtr = std::unique_ptr<JsonElement, Destroyer<JsonDestroy>>;
using WriterPtr = std::unique_ptr<Writer, Destroyer<WriterClose>>;
using CsvWriterPtr = std::unique_ptr<CsvWriter, Destroyer<CsvWriterClose>>;  // declare it after its Writer
using DirPtr = std::unique_ptr<Dir, Destroyer<DirClose>>;
using DBHandlePtr = std::unique_ptr<DBHandle, Destroyer<CloseDB>>;
using DBCursorPtr = std::unique_ptr<DBCursor, Destroyer<DeleteDBCursor>>;
using VarRefPtr = std::unique_ptr<VarRef, Destroyer<VarRefDestroy>>;
using PolicyPtr = std::unique_ptr<Policy, Destroyer<PolicyDestroy>>;
using EvalContextPtr = std::unique_ptr<EvalContext, Destroyer<EvalContextDestroy>>;
using ClassTableIteratorPtr = std::unique_ptr<ClassTableIterator, Destroyer<ClassTableIteratorDestroy>>;
using VariableTableIteratorPtr = std::unique_ptr<VariableTableIterator, Destroyer<VariableTableIteratorDestroy>>;

// An open file descriptor, or none (-1). It is closed with its owner, and errno stays what it was.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor()
    {
        const int saved_errno = errno;
        (void)Close();  // who needs to know calls it
        errno = saved_errno;
    }
    Descriptor(Descriptor &&other) noexcept : fd_(other.Release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        if (this != &other) {
            (void)Close();
            fd_ = other.Release();
        }
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    int Get() const { return fd_; }
    bool IsOpen() const { return fd_ >= 0; }
    int Release() { return std::exchange(fd_, -1); }

    // False with errno when closing reported a failed write; true when nothing was open.
    bool Close()
    {
        const int fd = Release();
        return fd < 0 || close(fd) == 0;
    }

  private:
    int fd_;
};

}  // namespace veltrane

#endif

#endif
