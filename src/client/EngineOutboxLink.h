// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_ENGINEOUTBOXLINK_H
#define TAVREN_INTERNAL_ENGINEOUTBOXLINK_H

#include "outbox/Outbox.h"

namespace tavren {
namespace internal {

class StompClientImpl;

/** Lets an outbox write on the engine's connection, under the engine lock, as a send does. */
class EngineOutboxLink : public OutboxLink {
public:
    explicit EngineOutboxLink(StompClientImpl* e) : engine(e) {}

    bool writeOn(unsigned generation, ClientFrame* const* frames, std::size_t count) override;
    void dropConnection(unsigned generation, const std::string& line) override;
    void logInfo(const std::string& line) override;
    void logError(const std::string& line) override;

private:
    /** Connection generation stands, with its listen thread. Under the engine lock. */
    bool stands(unsigned generation) const;

    StompClientImpl* engine;
};

} // namespace internal
} // namespace tavren

#endif
