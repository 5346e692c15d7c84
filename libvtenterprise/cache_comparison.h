// Compares the present state of a report with the cached one while the cache is read, record by record.
//
// The answer is that of GenerateDiff over both states, but a cached record is dropped as soon as it is known to be
// there still, unchanged: nearly all are, so only what differs is kept, and nothing is sorted that is in order. Where a
// record is to be looked for comes from what is seen of the present state:
//
//     keys that ascend                 beside the last one found: both states are merged
//     keys in any order, main keys     by the main key, in an index
//     anything else                    nowhere
//
// A cached record that does not fit in (its key came before, or the cache is not in order) ends this, and what was
// dropped is taken back from the present state: then both states go to GenerateDiff whole.
#ifndef LIBVTENTERPRISE_CACHE_COMPARISON_H
#define LIBVTENTERPRISE_CACHE_COMPARISON_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include <veltrane/owned.h>
#include <veltrane/seq.h>

#include "libvtenterprise/diff_common.h"

class CacheComparison {
  public:
    // present  lent, and not changed; may have empty slots
    // handle   lent. Records that CompareKeys finds equal must have equal main keys.
    CacheComparison(Seq *present, const ReportDataHandle &handle);

    // Take over the next record of the cache.
    void Add(void *cached);

    // Where a present item stands that the next record of the cache may well be, in ascending order; SIZE_MAX: nowhere.
    size_t Expected() const { return way_ == Way::merge && next_ < found_.size() ? next_ : SIZE_MAX; }

    // The next record of the cache is the expected one, unchanged.
    void AddExpected();

    // After the last one: the rows, with time 0, as GenerateDiff has them.
    veltrane::SeqPtr Rows();

  private:
    enum class Way { merge, look_up, give_up };
    enum class Found : uint8_t { nowhere, unchanged, changed };
    enum class Place { here, nowhere, misfit };

    // A slot of the index; free when its item is NULL.
    struct Slot {
        const void *item;
        uint32_t hash;
        uint32_t position;  // of the item
    };

    bool KeysAscend() const;
    bool MakeIndex();
    Slot *SlotOf(const void *record, std::string_view main_key);
    Place Merge(const void *cached, size_t *ret_position);
    Place LookUp(void *cached, size_t *ret_position);
    int Order(const void *a, const void *b) const { return handle_.CompareKeys(a, b, nullptr); }
    void *Present(size_t i) const { return SeqAt(present_, i); }
    veltrane::SeqViewPtr Removals();
    veltrane::SeqViewPtr AdditionsAndChanges() const;
    veltrane::SeqPtr RowsOf(Seq *cached) const;
    veltrane::SeqPtr RowsOfWholeStates() const;

    Seq *present_;
    const ReportDataHandle &handle_;
    Way way_ = Way::give_up;
    std::vector<Found> found_;  // of each present item, what the cache has; empty when the way was never another one
    std::vector<Slot> index_;   // way look_up: open addressing, at most half full
    size_t next_ = 0;           // way merge: the present items before it do not follow the cached record last added
    bool cache_is_empty_ = true;
    veltrane::SeqPtr gone_;      // cached records that the present state has no more
    veltrane::SeqPtr replaced_;  // cached records that have changed
    veltrane::SeqPtr misfits_;   // way give_up: cached records from the first misfit on
};

#endif
