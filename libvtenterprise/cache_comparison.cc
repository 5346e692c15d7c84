// The merge and the index; cache_comparison.h tells which is used when.
#include "libvtenterprise/cache_comparison.h"

#include <functional>
#include <memory>

#include "libvtenterprise/diff_engine.h"

using veltrane::SeqPtr;
using veltrane::SeqViewPtr;
using veltrane::TextPtr;

namespace {

constexpr size_t kMostIndexed = UINT32_MAX / 4;

uint32_t HashOf(std::string_view text)
{
    const size_t hash = std::hash<std::string_view>()(text);
    return static_cast<uint32_t>(hash ^ hash >> 32);
}

DiffRow *RowWith(DiffType type, void *record, DataDeleteFn data_delete)
{
    return DiffRowNew(DiffInfoNew(0, type), report_type_max, record, data_delete);
}

// user_data is the ReportDataHandle of the rows' records; only lent, so no harm is done by its const.
int CompareKeysOfRows(const void *a, const void *b, void *user_data)
{
    const ReportDataHandle *handle = static_cast<const ReportDataHandle *>(user_data);
    return handle->CompareKeys(static_cast<const DiffRow *>(a)->data, static_cast<const DiffRow *>(b)->data, nullptr);
}

}  // namespace

CacheComparison::CacheComparison(Seq *present, const ReportDataHandle &handle)
    : present_(present),
      handle_(handle),
      gone_(SeqNew(0, handle.DataDelete)),
      replaced_(SeqNew(0, handle.DataDelete)),
      misfits_(SeqNew(0, handle.DataDelete))
{
    way_ = KeysAscend() ? Way::merge : MakeIndex() ? Way::look_up : Way::give_up;
    if (way_ != Way::give_up) {
        found_.assign(SeqLength(present), Found::nowhere);
    }
}

// Strictly: no key comes twice.
bool CacheComparison::KeysAscend() const
{
    for (size_t i = 0; i < SeqLength(present_); i++) {
        if (Present(i) == nullptr || (i > 0 && Order(Present(i - 1), Present(i)) >= 0)) {
            return false;
        }
    }
    return true;
}

// Whether every present item has a main key, and none of them comes twice.
bool CacheComparison::MakeIndex()
{
    const size_t length = SeqLength(present_);
    if (handle_.DataGetMainKey == nullptr || length > kMostIndexed) {
        return false;
    }
    size_t slots = 16;
    while (slots < 2 * length) { slots *= 2; }
    index_.assign(slots, {nullptr, 0, 0});
    for (size_t i = 0; i < length; i++) {
        void *item = Present(i);
        const TextPtr main_key(item != nullptr ? handle_.DataGetMainKey(item) : nullptr);
        Slot *slot = main_key != nullptr ? SlotOf(item, main_key.get()) : nullptr;
        if (slot == nullptr || slot->item != nullptr) {
            index_ = {};
            return false;
        }
        *slot = {item, HashOf(main_key.get()), static_cast<uint32_t>(i)};
    }
    return true;
}

// The slot of the present item with the record's key, or the free one where it would be.
CacheComparison::Slot *CacheComparison::SlotOf(const void *record, std::string_view main_key)
{
    const uint32_t hash = HashOf(main_key);
    const size_t mask = index_.size() - 1;
    size_t i = hash & mask;
    while (index_[i].item != nullptr && (index_[i].hash != hash || Order(index_[i].item, record) != 0)) {
        i = (i + 1) & mask;
    }
    return &index_[i];
}

// The cached record before this one is equal to the present item before next_, or the last that is gone, which precedes
// the one at next_. So a record that is found is in order by itself; only one that is not found must be looked at.
CacheComparison::Place CacheComparison::Merge(const void *cached, size_t *ret_position)
{
    const size_t first = next_;
    for (; next_ < SeqLength(present_); next_++) {
        const int order = Order(Present(next_), cached);
        if (order == 0) {
            *ret_position = next_++;
            return Place::here;
        }
        if (order > 0) {
            break;
        }
    }
    const size_t gone = SeqLength(gone_.get());
    const bool follows_found = next_ > first || next_ == 0 || Order(Present(next_ - 1), cached) < 0;
    const bool follows_gone = gone == 0 || Order(SeqAt(gone_.get(), gone - 1), cached) < 0;
    return follows_found && follows_gone ? Place::nowhere : Place::misfit;
}

CacheComparison::Place CacheComparison::LookUp(void *cached, size_t *ret_position)
{
    const TextPtr main_key(handle_.DataGetMainKey(cached));
    if (main_key == nullptr) {
        return Place::misfit;
    }
    const Slot *slot = SlotOf(cached, main_key.get());
    if (slot->item == nullptr) {
        return Place::nowhere;
    }
    *ret_position = slot->position;
    return found_[*ret_position] == Found::nowhere ? Place::here : Place::misfit;
}

void CacheComparison::Add(void *cached)
{
    cache_is_empty_ = false;
    size_t position = 0;
    const Place place = way_ == Way::merge     ? Merge(cached, &position)
                        : way_ == Way::look_up ? LookUp(cached, &position)
                                               : Place::misfit;
    if (place == Place::misfit) {
        way_ = Way::give_up;
        SeqAppend(misfits_.get(), cached);
    } else if (place == Place::nowhere) {
        SeqAppend(gone_.get(), cached);
    } else if (handle_.CompareValues == nullptr || handle_.CompareValues(Present(position), cached)) {
        found_[position] = Found::unchanged;
        handle_.DataDelete(cached);
    } else {
        found_[position] = Found::changed;
        SeqAppend(replaced_.get(), cached);
    }
}

void CacheComparison::AddExpected()
{
    cache_is_empty_ = false;
    found_[next_++] = Found::unchanged;
}

// Hands the records that are gone over to their rows.
SeqViewPtr CacheComparison::Removals()
{
    const SeqViewPtr gone(gone_.release());
    SeqViewPtr rows(SeqNew(SeqLength(gone.get()), nullptr));
    for (size_t i = 0; i < SeqLength(gone.get()); i++) {
        SeqAppend(rows.get(), RowWith(diff_remove, SeqAt(gone.get(), i), handle_.DataDelete));
    }
    return rows;
}

SeqViewPtr CacheComparison::AdditionsAndChanges() const
{
    SeqViewPtr rows(SeqNew(0, nullptr));
    for (size_t i = 0; i < found_.size(); i++) {
        if (found_[i] != Found::unchanged) {
            const DiffType type = found_[i] == Found::changed ? diff_change : diff_add;
            SeqAppend(rows.get(), RowWith(type, handle_.DataDup(Present(i)), handle_.DataDelete));
        }
    }
    return rows;
}

SeqPtr CacheComparison::RowsOf(Seq *cached) const
{
    return SeqPtr(GenerateDiff(cached, present_, handle_.DataDelete, handle_.CompareKeys, handle_.CompareValues,
                               handle_.DataDup));
}

// An unchanged record that was dropped is as good as the present one: no row can come of it.
SeqPtr CacheComparison::RowsOfWholeStates() const
{
    const SeqViewPtr cached(SeqNew(SeqLength(present_), nullptr));
    for (size_t i = 0; i < found_.size(); i++) {
        if (found_[i] == Found::unchanged) {
            SeqAppend(cached.get(), Present(i));
        }
    }
    SeqAppendSeq(cached.get(), gone_.get());
    SeqAppendSeq(cached.get(), replaced_.get());
    SeqAppendSeq(cached.get(), misfits_.get());
    return RowsOf(cached.get());
}

SeqPtr CacheComparison::Rows()
{
    if (cache_is_empty_) {
        return RowsOf(nullptr);
    }
    if (way_ == Way::give_up) {
        return RowsOfWholeStates();
    }
    const SeqViewPtr removals = Removals();
    const SeqViewPtr others = AdditionsAndChanges();
    if (way_ == Way::look_up) {
        SeqSort(removals.get(), CompareKeysOfRows, const_cast<ReportDataHandle *>(&handle_));
        SeqSort(others.get(), CompareKeysOfRows, const_cast<ReportDataHandle *>(&handle_));
    }
    SeqPtr rows(SeqNew(SeqLength(removals.get()) + SeqLength(others.get()), DiffRowDelete));
    SeqAppendSeq(rows.get(), removals.get());
    SeqAppendSeq(rows.get(), others.get());
    return rows;
}
