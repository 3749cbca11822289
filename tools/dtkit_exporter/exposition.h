// What one probe of a device turns into: the Prometheus text exposition
// format (version 0.0.4), built from the collector core's events. Plain
// bytes in, text out, so that tests check it without sockets.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "stream_reader.h"

namespace dtexporter {

using Event = dtcore::Event;

extern const char kContentType[];

// A device's bytes as a label value that Prometheus accepts and that keeps
// every byte recoverable: well-formed UTF-8 passes, a backslash is doubled,
// and control characters, DEL and every byte that is not part of well-formed
// UTF-8 are spelled \xNN (lower-case hex). Distinct byte strings therefore
// give distinct values, and a reader undoes it by reading \\ and \xNN back.
std::string LabelText(const std::string &bytes);

// The exposition format's escaping inside a quoted label value (\\, \" and \n).
std::string Quote(const std::string &text);

// A number as the exposition writes it: integers exactly, fractions with
// microsecond resolution.
std::string Number(double v);

// One probe's findings. Add is called on the core's loop thread while the
// collection runs; Render once it is done, on the thread that answers.
class ProbeReport {
public:
    void Add(const Event &e);
    // success false: the values are left out, so that a dashboard never
    // reads a half-collected device as a whole one; the counts still say how
    // far the stream got, and the error goes into a comment line.
    std::string Render(bool success, double seconds, const std::string &error) const;
    uint64_t Values() const { return ints_ + longs_ + strings_ + buffers_; }

private:
    struct Sample {
        std::string labels;
        uint64_t value;
    };
    std::vector<Sample> samples_;
    // How often each (section, block, code) was seen: a repeat gets the label
    // repeat="N" (N = 1 for the second), so no label set occurs twice and
    // every value the device put is kept.
    std::map<std::string, uint32_t> seen_;
    uint64_t ints_ = 0, longs_ = 0, strings_ = 0, buffers_ = 0;
    bool identified_ = false;
    uint32_t identity_ = 0;
};

}  // namespace dtexporter
