// SPDX-License-Identifier: Apache-2.0
// Building the frames of a send and of an acknowledgement, and starting a
// message worker, each beside the simpler way of doing the same where there
// is one. Compare ratios within one run, not absolute times.
//
//   ./bench/bench_frames --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include "client/WorkerStacks.h"
#include "frames/AckFrame.h"
#include "frames/SendFrame.h"
#include "frames/ServerFrame.h"
#include "frames/Session.h"
#include "transport/FrameParser.h"

#include <benchmark/benchmark.h>

#include <pthread.h>

#include <cstring>
#include <memory>
#include <string>

using tavren::HeaderMap;
using tavren::internal::AckFrame;
using tavren::internal::FrameParser;
using tavren::internal::SendFrame;
using tavren::internal::ServerFrame;
using tavren::internal::Session;
using tavren::internal::WorkerStacks;

namespace {

const std::string kText(100, 't');

// A SEND frame built afresh for every message.
void BM_BuildSendFrame(benchmark::State& state) {
    for (auto _ : state) {
        SendFrame frame;
        frame.setText(const_cast<char*>(kText.c_str()));
        frame.setDestination("/queue/bench");
        frame.setAdditionalHeaders(nullptr);
        benchmark::DoNotOptimize(frame.headers().size());
    }
}

// One SEND frame reused, as the engine does for sends without extra headers.
void BM_ReuseSendFrame(benchmark::State& state) {
    SendFrame frame;
    for (auto _ : state) {
        frame.setText(const_cast<char*>(kText.c_str()));
        frame.setDestination("/queue/bench");
        frame.setAdditionalHeaders(nullptr);
        benchmark::DoNotOptimize(frame.headers().size());
    }
}

void BM_BuildSendFrameWithExtraHeaders(benchmark::State& state) {
    HeaderMap extra{{"priority", "4"}, {"persistent", "true"}};
    for (auto _ : state) {
        SendFrame frame;
        frame.setText(const_cast<char*>(kText.c_str()));
        frame.setDestination("/queue/bench");
        frame.setAdditionalHeaders(&extra);
        benchmark::DoNotOptimize(frame.headers().size());
    }
}

std::unique_ptr<ServerFrame> parsedMessage() {
    const std::string bytes = "MESSAGE\ndestination:/queue/bench\nmessage-id:ID:bench-1234-5678\nsubscription:sub-0\n"
                              "ack:ID:bench-1234-5678\ncontent-type:text/plain\ncontent-length:100\n\n" +
                              kText + std::string("\0", 1);
    FrameParser parser;
    size_t used = 0;
    parser.parse(bytes.data(), bytes.size(), &used);
    return std::unique_ptr<ServerFrame>(parser.takeFrame());
}

// The ACK of a received MESSAGE, for a 1.2 and a 1.1 session.
void BM_BuildAckFrame(benchmark::State& state) {
    const std::unique_ptr<ServerFrame> message = parsedMessage();
    const Session session("RabbitMQ/3.10.8", state.range(0) == 12 ? "1.2" : "1.1", "0,0", "session-1");
    for (auto _ : state) {
        AckFrame frame(message.get(), &session, AckFrame::ACK);
        benchmark::DoNotOptimize(frame.headers().size());
    }
}

void* nothing(void* arg) { return arg; }

// Starting and joining one worker thread: on a stack the thread library
// maps (and hands back to the kernel at the thread's end), and on a stack
// kept mapped by WorkerStacks.
void BM_WorkerOnLibraryStack(benchmark::State& state) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    for (auto _ : state) {
        pthread_t thread;
        if (pthread_create(&thread, &attributes, &nothing, nullptr) != 0) state.SkipWithError("no thread");
        pthread_join(thread, nullptr);
    }
    pthread_attr_destroy(&attributes);
}

void BM_WorkerOnKeptStack(benchmark::State& state) {
    WorkerStacks stacks;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    for (auto _ : state) {
        WorkerStacks::Stack stack;
        if (!stacks.take(256 * 1024, &stack)) state.SkipWithError("no stack");
        pthread_attr_setstack(&attributes, stack.base, stack.size);
        pthread_t thread;
        if (pthread_create(&thread, &attributes, &nothing, nullptr) != 0) state.SkipWithError("no thread");
        pthread_join(thread, nullptr);
        stacks.give(stack);
    }
    pthread_attr_destroy(&attributes);
}

} // namespace

BENCHMARK(BM_BuildSendFrame);
BENCHMARK(BM_ReuseSendFrame);
BENCHMARK(BM_BuildSendFrameWithExtraHeaders);
BENCHMARK(BM_BuildAckFrame)->Arg(11)->Arg(12);
// Measured in CPU time of the whole process: most of a worker's cost is in
// the kernel and on the worker's own thread.
BENCHMARK(BM_WorkerOnLibraryStack)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_WorkerOnKeptStack)->MeasureProcessCPUTime()->UseRealTime();

BENCHMARK_MAIN();
