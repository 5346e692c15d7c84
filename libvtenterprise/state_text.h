// A state as its cache file holds it: one CSV record an item, made item by item in the order of the state.
//
// The records go to the file in batches. Meanwhile the last one made can be looked at, so that whoever reads the old
// cache sees without taking it apart whether a record stands there still.
#ifndef LIBVTENTERPRISE_STATE_TEXT_H
#define LIBVTENTERPRISE_STATE_TEXT_H

#include <cstddef>
#include <string_view>

#include <veltrane/owned.h>
#include <veltrane/seq.h>

#include "libvtenterprise/diff_common.h"

class StateText {
  public:
    // state  lent, and not changed; empty slots are passed over
    // to     lent; NULL: nothing is written
    StateText(const Seq *state, DataToCSVFn DataToCSV, Writer *to);

    // The record of the item at i, its line end included, made now unless it was the last one made; lent until the next
    // call. Positions only ascend.
    std::string_view Record(size_t i);

    // Make and write all that is left.
    void Finish();

  private:
    void Make();
    void WriteBatch();

    const Seq *state_;
    DataToCSVFn data_to_csv_;
    Writer *to_;
    veltrane::WriterPtr batch_;
    veltrane::CsvWriterPtr csv_;  // on batch_
    size_t made_ = 0;             // items
    size_t last_ = 0;             // where the record last made starts in batch_
};

// Whether a field of a record as the CSV writer makes it may be empty. Such a field is read back as an absent text even
// where the item held an empty one, so equal records do not prove equal items then.
bool MayHoldEmptyField(std::string_view record);

#endif
