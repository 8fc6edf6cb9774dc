// How often something took how long.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

class Histogram {
public:
    // Upper ends of the ranges that are counted, in seconds. The same for everything that is
    // measured: from an answer in the same switch to one that came too late.
    static constexpr std::array<double, 10> BOUNDS = {0.001, 0.0025, 0.005, 0.01, 0.025,
                                                      0.05,  0.1,    0.25,  0.5,  1};

    void Add(double seconds) {
        size_t range = 0;
        while (range < BOUNDS.size() && seconds > BOUNDS[range]) {
            ++range;
        }
        ++m_counts[range];
        m_sum += seconds;
    }

    // By range; the last one has no upper end.
    const std::array<uint64_t, BOUNDS.size() + 1>& Counts() const { return m_counts; }
    double Sum() const { return m_sum; }  // seconds

private:
    std::array<uint64_t, BOUNDS.size() + 1> m_counts{};
    double m_sum = 0;
};
