// SPDX-License-Identifier: Apache-2.0
#include <tavren/StompClient.h>

#include "client/StompClientImpl.h"

#include <kelvra/utility/Uuid.h>

namespace tavren {

namespace {

const std::string kQueuePrefix = "/queue/";

} // namespace

StompClient::StompClient(std::string host, int port, std::string login, std::string passcode, tavren::Logger* logger,
                         std::pair<std::string, std::string>* heartbeat)
    : clientName("Corvath-" + kelvra::utility::generateUuid()) {
    impl.reset(new internal::StompClientImpl(logger, clientName));
    impl->setupSocketDetails(host, port);
    impl->setupAuthentication(login, passcode);
    if (heartbeat) impl->setupHeartbeating(heartbeat);
}

StompClient::StompClient(std::string host, int port, tavren::Logger* logger,
                         std::pair<std::string, std::string>* heartbeat)
    : clientName("Corvath-" + kelvra::utility::generateUuid()) {
    impl.reset(new internal::StompClientImpl(logger, clientName));
    impl->setupSocketDetails(host, port);
    if (heartbeat) impl->setupHeartbeating(heartbeat);
}

StompClient::~StompClient() {}

void StompClient::openConnection(int reconnectPeriod, kelvra::utility::Version version) {
    impl->setupRobustConnection(reconnectPeriod, version, clientName, "");
}

void StompClient::listenOnQueue(std::string queue, tavren::Listener* listener) {
    impl->registerListener(kQueuePrefix + queue, listener, HeaderMap());
}

void StompClient::listenOnQueue(std::string queue, tavren::Listener* listener, const HeaderMap& subscribeHeaders) {
    impl->registerListener(kQueuePrefix + queue, listener, subscribeHeaders);
}

void StompClient::stopListeningOnQueue(std::string queue) { impl->deregisterListener(kQueuePrefix + queue); }

void StompClient::sendToQueue(std::string queue, const char* text, HeaderMap* additionalHeaders) {
    impl->sendMessage(kQueuePrefix + queue, text, additionalHeaders);
}

void StompClient::pauseAllListeners() { impl->pauseAllListeners(); }

void StompClient::resumeAllListeners() { impl->resumeAllListeners(); }

void StompClient::closeConnection() { impl->closeConnection(); }

bool StompClient::isConnected() const { return impl->isConnected(); }

void StompClient::setMaxWorkers(int count) { impl->setMaxWorkers(count); }

void StompClient::setWorkerStackSize(size_t bytes) { impl->setWorkerStackSize(bytes); }

void StompClient::useWorkerPool(int threads) { impl->useWorkerPool(threads); }

void StompClient::enableOrderedDelivery() { impl->enableOrderedDelivery(); }

void StompClient::useTls(const TlsOptions& options) { impl->useTls(options); }

void StompClient::enableHeartbeats() { impl->enableHeartbeats(); }

void StompClient::addFailoverBroker(std::string host, int port) { impl->addFailoverBroker(host, port); }

void StompClient::useOutbox(const OutboxOptions& options) { impl->useOutbox(options); }

std::size_t StompClient::pendingMessages() const { return impl->pendingMessages(); }

bool StompClient::waitForConfirmations(long timeoutMs) { return impl->waitForConfirmations(timeoutMs); }
void StompClient::setVirtualHost(std::string host) { impl->setVirtualHost(host); }

void StompClient::setFrameLimits(std::size_t maxLineBytes, std::size_t maxBodyBytes) {
    impl->setFrameLimits(maxLineBytes, maxBodyBytes);
}

} // namespace tavren
