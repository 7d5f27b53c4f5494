// SPDX-License-Identifier: Apache-2.0
// Tallies received messages by their "bench-seq" number, 1 to expected: how
// many arrived once, how many again, and how many carried no number in range.
// Shared by the floor and the libtavren client.
#ifndef TAVREN_BENCH_SEQ_TALLY_H
#define TAVREN_BENCH_SEQ_TALLY_H

#include <vector>

struct SeqTally {
    explicit SeqTally(long expected) : expected(expected), seen(expected + 2, 0) {}

    bool inRange(long seq) const { return seq > 0 && seq <= expected; }

    void count(long seq) {
        if (!inRange(seq)) {
            ++noSeq;
        } else if (seen[seq]) {
            ++dups;
        } else {
            seen[seq] = 1;
            ++unique;
        }
    }

    const long expected;
    std::vector<unsigned char> seen;
    long unique = 0, dups = 0, noSeq = 0;
};

#endif
