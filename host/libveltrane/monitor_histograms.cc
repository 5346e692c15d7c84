#include "libveltrane/monitor_histograms.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "libveltrane/monitor_rings.h"

namespace veltrane {

namespace {

constexpr double kMiddle = 32;
constexpr double kPositionsPerDeviation = 8;
constexpr double kFirst = 1;  // the outermost positions stay 0: the reader smooths, and has no neighbour there
constexpr double kLast = VT_HISTOGRAM_POSITIONS - 2;
constexpr double kMost = 100000;  // a value beyond it halves those of its slot, so that old days fade
constexpr size_t kSlotDays = size_t{VT_OBSERVABLES} * VT_WEEK_DAYS;

// Take one number and the blank behind it off a text.
template <typename Number>
bool TakeNumber(std::string_view *text, Number *ret_number)
{
    const char *const end = text->data() + text->size();
    const auto [after, error] = std::from_chars(text->data(), end, *ret_number);
    if (error != std::errc() || after == end || *after != ' ') {
        return false;
    }
    text->remove_prefix(static_cast<size_t>(after + 1 - text->data()));
    return true;
}

}  // namespace

size_t HistogramPosition(double q, double expect, double var)
{
    if (!(var > 0) || !std::isfinite(var)) {
        return static_cast<size_t>(kMiddle);
    }
    const double position = kMiddle + std::round(kPositionsPerDeviation * (q - expect) / std::sqrt(var));
    return static_cast<size_t>(std::clamp(std::isnan(position) ? kMiddle : position, kFirst, kLast));
}

std::optional<Histograms> Histograms::Parse(std::string_view text)
{
    Histograms histograms;
    for (size_t position = 0; position < VT_HISTOGRAM_POSITIONS; ++position) {
        size_t number = 0;
        if (!TakeNumber(&text, &number) || number != position) {
            return std::nullopt;
        }
        for (size_t i = 0; i < kSlotDays; ++i) {
            double value = 0;
            if (!TakeNumber(&text, &value) || !(value >= 0 && value <= kMost)) {
                return std::nullopt;
            }
            histograms.counts_[i * VT_HISTOGRAM_POSITIONS + position] = value;
        }
        if (text.empty() || text.front() != '\n') {
            return std::nullopt;
        }
        text.remove_prefix(1);
    }
    return text.empty() ? std::optional(histograms) : std::nullopt;
}

std::string Histograms::Text() const
{
    std::string text;
    text.reserve(kCounts * 8);
    char number[64];
    for (size_t position = 0; position < VT_HISTOGRAM_POSITIONS; ++position) {
        text += std::to_string(position) + " ";
        for (size_t i = 0; i < kSlotDays; ++i) {
            const double value = counts_[i * VT_HISTOGRAM_POSITIONS + position];
            text.append(number, static_cast<size_t>(snprintf(number, sizeof(number), "%.4f ", value)));
        }
        text += '\n';
    }
    return text;
}

void Histograms::Count(const MonitorSample &sample, const std::optional<MonitorSample> &before)
{
    const auto day = static_cast<size_t>((sample.t - WeekOf(sample.t)) / kDaySeconds);
    for (size_t slot = 0; slot < VT_OBSERVABLES; ++slot) {
        if (!IsMeasured(sample.Q[slot])) {
            continue;
        }
        const bool known = before.has_value() && IsMeasured(before->Q[slot]);
        const QPoint &old = known ? before->Q[slot] : sample.Q[slot];  // its own average leaves no distance
        Add(slot, day, HistogramPosition(sample.Q[slot].q, old.expect, old.var));
    }
}

void Histograms::Add(size_t slot, size_t day, size_t position)
{
    double &value = counts_[Index(slot, day, position)];
    value++;
    if (value > kMost) {
        const auto first = counts_.begin() + static_cast<std::ptrdiff_t>(Index(slot, 0, 0));
        std::for_each(first, first + VT_WEEK_DAYS * VT_HISTOGRAM_POSITIONS, [](double &count) { count /= 2; });
    }
}

}  // namespace veltrane
