// A value of its own: an Rval that is destroyed with its owner.
#ifndef HOST_LIBVELTRANE_OWNED_RVAL_H
#define HOST_LIBVELTRANE_OWNED_RVAL_H

#include <veltrane/rval.h>

namespace veltrane {

class OwnedRval {
  public:
    OwnedRval() = default;
    explicit OwnedRval(Rval rval) : rval_(rval) {}
    ~OwnedRval() { RvalDestroy(rval_); }
    OwnedRval(OwnedRval &&other) noexcept : rval_(other.Release()) {}
    OwnedRval &operator=(OwnedRval &&other) noexcept
    {
        if (this != &other) {
            RvalDestroy(rval_);
            rval_ = other.Release();
        }
        return *this;
    }
    OwnedRval(const OwnedRval &) = delete;
    OwnedRval &operator=(const OwnedRval &) = delete;

    const Rval &Get() const { return rval_; }
    Rval Release()
    {
        const Rval rval = rval_;
        rval_ = Rval{nullptr, RVAL_TYPE_NONE};
        return rval;
    }

  private:
    Rval rval_{nullptr, RVAL_TYPE_NONE};
};

}  // namespace veltrane

#endif
