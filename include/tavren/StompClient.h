// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_STOMPCLIENT_H
#define TAVREN_STOMPCLIENT_H

#include <kelvra/UniquePtr.h>
#include <kelvra/utility/Version.h>
#include <tavren/HeaderMap.h>
#include <tavren/Listener.h>
#include <tavren/Logger.h>
#include <tavren/OutboxException.h>
#include <tavren/OutboxOptions.h>
#include <tavren/TlsOptions.h>

#include <cstddef>
#include <string>
#include <utility>

namespace tavren {

namespace internal {
class StompClientImpl;
}

/**
 * A STOMP client for one broker: sends text messages to queues and hands the
 * messages of each queue to a Listener.
 *
 * The client keeps itself connected. When the connection fails it logs why,
 * reconnects by itself (at once, then every reconnect period) and subscribes
 * every registered listener again; the application does not have to do
 * anything. What happens is reported through the Logger, never as an
 * exception from a connection that once stood. A connection lost less than
 * a reconnect period after the attempt that made it is not made again at
 * once but by the timer, so a broker that accepts and drops connections is
 * not stormed; the timer waits the period plus up to a tenth of it at
 * random.
 *
 * Every wait is bounded (docs/reliability.md lists the figures): the TCP
 * connect 5 s, the broker's answer to CONNECT 3 s, a write that cannot send
 * a byte for 10 s fails (the connection is then taken as lost), and a
 * receipt that has not come after 10 s ends its wait (likewise). Every
 * connection has TCP keep-alive, so a broker that vanished without closing
 * is noticed within about 40 s.
 *
 * Queue names are given bare: "orders" means the destination "/queue/orders".
 *
 * The logger and the listeners belong to the application and must outlive
 * the client (or, for a listener, its registration).
 *
 * Threads: every call may be made from any application thread; the client
 * serialises them under one engine lock, so a call may wait while another
 * one (or a reconnect) runs. Besides the caller's threads the client runs a
 * reconnect timer thread while a connection is being made again, one listen
 * thread per connection (it reads frames, hands receipts to their waiters
 * and writes ACK and NACK) and one worker thread per message, which calls
 * Listener::onMessage. The Logger is called from all of them but the workers.
 *
 * Exceptions: std::bad_alloc when memory runs out, and std::out_of_range from
 * a connection attempt made on the caller's thread whose broker answered
 * CONNECTED without a "server", "version", "heart-beat" or "session" header
 * (see openConnection). Nothing else is thrown; failures are logged. The
 * exact lines are listed with tavren::Logger.
 */
class StompClient {
public:
    /**
     * A client that logs in with login and passcode (both are sent, even when
     * empty). logger must not be null. heartbeat, when not null, gives the
     * two figures of the CONNECT "heart-beat" header (they are copied; by
     * default "0" and "0"). Nothing is connected yet.
     *
     * The library sends no heart-beats of its own and does not watch the
     * broker's (it reads and drops them), so a first figure other than "0"
     * makes a broker that honours it close the connection after that many
     * milliseconds; the client then reconnects.
     *
     * @param host the broker's name or address, for example "127.0.0.1"
     * @param port the broker's STOMP port
     * @param login the CONNECT "login" header
     * @param passcode the CONNECT "passcode" header
     * @param logger where the client writes its lines; not null, not owned,
     *        and it must outlive the client
     * @param heartbeat the two "heart-beat" figures (the client's, then what it
     *        asks of the broker), or null for "0,0"
     * @throws std::bad_alloc when memory runs out
     */
    StompClient(std::string host, int port, std::string login, std::string passcode, tavren::Logger* logger,
                std::pair<std::string, std::string>* heartbeat);
    /**
     * The same without credentials: the CONNECT frame carries no "login" or
     * "passcode" header.
     * @param host the broker's name or address
     * @param port the broker's STOMP port
     * @param logger where the client writes its lines; not null, not owned, outlives the client
     * @param heartbeat the two "heart-beat" figures, or null for "0,0"
     */
    StompClient(std::string host, int port, tavren::Logger* logger, std::pair<std::string, std::string>* heartbeat);
    /**
     * Stops the reconnect timer and the listen thread. Sends no DISCONNECT.
     *
     * Waits for a reconnect attempt that is running and for the listen
     * thread, which logs "Resolving remaining message handlers..." and
     * acknowledges the messages whose listeners return within about 20 ms;
     * listener calls still running after that are left to finish on their
     * own, their messages unacknowledged. The socket is closed. Like
     * closeConnection, it does not wait behind a stalled write for more
     * than a second. Must not be called from Listener::onMessage or from the
     * Logger.
     */
    virtual ~StompClient();
    StompClient(const StompClient&) = delete;
    StompClient& operator=(const StompClient&) = delete;

    /**
     * Connects, offering exactly one protocol version (for example
     * kelvra::utility::Version("1.2")). The first attempt runs before this
     * returns; if it fails, it is logged and attempts go on in the background
     * every reconnectPeriod milliseconds until one succeeds. Learn the outcome
     * from isConnected() and the log. A broker whose CONNECTED frame lacks
     * one of "server", "version", "heart-beat" or "session" makes this throw
     * std::out_of_range (attempts still go on in the background).
     *
     * The first attempt runs on the calling thread: the TCP connect may take
     * 5 seconds, then the broker has 3 seconds to answer the CONNECT. Once
     * connected, the client starts the listen thread and subscribes every
     * listener registered so far (on this thread too, their receipts within
     * 10 seconds in all). Later attempts run on the reconnect timer's
     * thread.
     *
     * A connection that the broker refused (an ERROR, then the end of the
     * connection, or an ERROR answering CONNECT), or one that ended within a
     * reconnect period of its CONNECTED without bringing a message, makes
     * the next attempt wait a period; each further one in a row doubles the
     * wait, up to 60 s (plus the jitter). A connection that stands a full
     * period starts again from the period. Each refusal is logged once with
     * the broker's reason ("The broker refused ...").
     *
     * Logs "Attempting to connect...", then "Connected." or (error) "Failed
     * to connect on first try, " and the reason; each later attempt logs
     * "Retrying connect..." and "Connected." or "Reconnect failed with: "
     * and the reason. The reasons are ConnectionException texts, such as
     * "The connection was refused." or "The Broker replied with an error.
     * Broker replied: " and the ERROR frame's body.
     *
     * @param reconnectPeriod milliseconds between attempts (a value below 1 counts as 1)
     * @param version the one protocol version offered in "accept-version":
     *        1.0, 1.1 or 1.2; the ACK and NACK frames follow the version the
     *        broker answers with
     * @throws std::out_of_range when the broker's CONNECTED frame lacks one of
     *         the headers above
     */
    void openConnection(int reconnectPeriod, kelvra::utility::Version version);

    /**
     * Subscribes listener to the queue and waits for the broker's receipt.
     * A refusal by the broker on a connection that stays open (an ERROR
     * that answers the SUBSCRIBE) is logged and leaves the listener
     * unregistered. A refusal after which the broker closes the connection
     * (an ERROR while the receipt is awaited, even when a RECEIPT follows)
     * is logged with the broker's reason ("The broker refused the
     * subscription to /queue/NAME (...) and closed the connection: the
     * listener is kept and subscribed again on the next connection."),
     * never as a success; the listener is kept and subscribed again on the
     * next connection, which waits longer after each refusal (see
     * openConnection). To tell the two apart, the client waits up to a
     * quarter of a second after an ERROR for the connection to end.
     *
     * The subscription acknowledges each message on its own ("ack:
     * client-individual"). The wait ends with the receipt, an ERROR, the loss
     * of the connection, or after 10 seconds without an answer; while
     * setMaxWorkers' bound is reached the receipt also waits for a listener
     * call to return. A broker that has not answered after 10 seconds is
     * taken as lost (error "The broker did not answer the subscription to
     * /queue/NAME within 10 s: the connection is taken as lost."), and the
     * reconnect subscribes the listener again. When the connection goes
     * meanwhile, the listener stays registered and is subscribed with the
     * others on the next connection. Called while no connection stands, the
     * SUBSCRIBE cannot be written: that is logged ("While trying to
     * subscribe to /queue/NAME. Error N: ..."), the listener is kept ("The
     * listener on /queue/NAME is kept and subscribed as soon as a connection
     * stands.") and the loss is handled as sendToQueue's; the next
     * connection subscribes it.
     *
     * Logs "Registering listener on /queue/NAME", then "Subscribed to
     * destination /queue/NAME successfully." or (error) "Failed to subscribe
     * to destination /queue/NAME. Broker replied: ..." with the broker's
     * ERROR, or "The broker's answer to the subscription to /queue/NAME never
     * came: ...".
     *
     * Must not be called from Listener::onMessage. One listener per queue:
     * stop listening on a queue before registering another listener for it.
     *
     * @param queue the bare queue name ("orders" for "/queue/orders")
     * @param listener receives the queue's messages; not null, not owned; it
     *        must stay alive until stopListeningOnQueue for the queue has
     *        returned and its last onMessage call has returned, or until the
     *        client is destroyed
     * @throws std::out_of_range as openConnection, when a failed write leads
     *         to a connection attempt on this thread that meets such a broker
     */
    void listenOnQueue(std::string queue, tavren::Listener* listener);

    /**
     * As listenOnQueue(queue, listener), with headers of the application's
     * own on this listener's SUBSCRIBE: the first one and every later one
     * (after a reconnect, after resumeAllListeners, on a failover broker),
     * until stopListeningOnQueue for the queue. For example
     * "x-queue-type: quorum" for a RabbitMQ quorum queue (every connection's
     * first frame to the queue must carry it, see docs/brokers.md), or
     * "selector" on ActiveMQ. Headers go out in name order after the
     * library's. With an empty map the frame is exactly the one the
     * two-argument form writes; the two-argument form drops headers given
     * earlier for the queue.
     *
     * Headers the library writes itself cannot be given: "destination",
     * "id", "ack", "receipt", "prefetch-count" and "activemq.prefetchSize".
     * Such a header throws std::invalid_argument naming it; nothing is
     * logged or written and nothing is registered.
     *
     * @param queue the bare queue name ("orders" for "/queue/orders")
     * @param listener as for listenOnQueue(queue, listener)
     * @param subscribeHeaders the headers to add; copied
     * @throws std::invalid_argument when subscribeHeaders holds a header the library writes
     * @throws std::out_of_range as listenOnQueue(queue, listener)
     */
    void listenOnQueue(std::string queue, tavren::Listener* listener, const HeaderMap& subscribeHeaders);

    /**
     * Unsubscribes from the queue, waits for the broker's receipt, and forgets its listener.
     *
     * Also forgets a listener paused by pauseAllListeners. The wait ends as
     * listenOnQueue's does; whatever the broker answers, or when no answer
     * comes, the listener is forgotten and no later connection subscribes
     * it. Listener calls that are running go on: the listener must stay
     * alive until they have returned.
     *
     * Logs "Deregistering listener on /queue/NAME", then "Unsubscribed from
     * destination /queue/NAME successfully." or (error) "Failed to
     * unsubscribe from destination /queue/NAME. Broker replied: ...", "The
     * broker's answer to the unsubscription from /queue/NAME never came: the
     * connection was lost.", or, for a queue without a listener, "No
     * listener is registered on /queue/NAME; nothing to unsubscribe."
     *
     * Must not be called from Listener::onMessage.
     *
     * @param queue the bare queue name
     * @throws std::out_of_range as listenOnQueue
     */
    void stopListeningOnQueue(std::string queue);

    /**
     * Sends text (a C string; the body is its bytes up to the NUL) to the
     * queue with "content-type: text/plain", its "content-length", and the
     * additional headers (may be null) whose names the frame does not already
     * carry. A failure to send is logged and leads to a reconnect.
     *
     * Returns once the frame is written to the socket; the broker sends no
     * receipt for it. The message is not kept: when no connection stands or
     * the write fails (also when not a byte of it could be sent for 10
     * seconds), it is lost, "Disconnected!" is logged (error) and a
     * connection attempt is made at once on this thread ("Attempting to
     * connect..."), then on the timer; within a reconnect period of the last
     * attempt, only the timer tries ("Connecting again in N ms: ..."). May
     * be called from Listener::onMessage.
     *
     * During an outage whose attempts are already scheduled, only the first
     * lost send logs "Disconnected!"; the later ones make no attempt and
     * start no thread, and their count is logged at most once per reconnect
     * period ("N messages sent while disconnected were lost so far.") and
     * once a connection stands ("N messages sent while disconnected were
     * lost.").
     *
     * @param queue the bare queue name
     * @param text the body; a null text sends an empty body
     * @param additionalHeaders more headers, or null; the map is only read
     *        during the call
     * @throws std::out_of_range as listenOnQueue
     */
    void sendToQueue(std::string queue, const char* text, HeaderMap* additionalHeaders);

    /**
     * Unsubscribes every listener but remembers them for resumeAllListeners.
     *
     * One unsubscription after the other, each waiting for its receipt as
     * stopListeningOnQueue does. Logs "Pausing all listeners..." and, per
     * queue, "De-registering listener for: /queue/NAME" and
     * stopListeningOnQueue's lines. A reconnect subscribes the paused
     * listeners again with the others (it resumes every known listener), so
     * a pause lasts only as long as the connection. Must not be called from
     * Listener::onMessage.
     *
     * @throws std::out_of_range as listenOnQueue
     */
    void pauseAllListeners();
    /**
     * Subscribes every known listener again, the paused ones included.
     *
     * One subscription after the other, each waiting for its receipt as
     * listenOnQueue does. Logs "Resuming all listeners..." and, per queue,
     * "Re-registering listener for: /queue/NAME" and listenOnQueue's lines.
     * The client calls it itself after every connection. Called while the
     * listeners are subscribed, it subscribes each queue a second time on
     * the same connection; the broker then shares the queue's messages
     * between the two subscriptions until the connection ends, and
     * stopListeningOnQueue ends only the newer one. Resume only after a
     * pause. Must not be called from Listener::onMessage.
     *
     * @throws std::out_of_range as listenOnQueue
     */
    void resumeAllListeners();

    /**
     * Stops listening and forgets the session. Writes no DISCONNECT frame. A
     * reconnect timer that is running goes on.
     *
     * Logs "Disconnected." (also when no connection stood), stops the listen
     * thread and waits for it; listener calls that return within about 20 ms
     * are acknowledged, later ones are left unacknowledged. Waits for
     * receipts are ended. The listeners stay registered and are subscribed
     * again by the next openConnection. The socket itself stays open until
     * the next connection attempt or the client's destruction. A call that
     * holds the client for more than a second (a write to a broker that
     * stopped reading) is not waited for: the connection is shut down under
     * it (error "The connection has kept the client busy for 1000 ms: it is
     * shut down so that the client can close."), and no reconnect follows
     * from that. Must not be called from Listener::onMessage.
     */
    void closeConnection();

    /**
     * True while a session with the broker stands: from the CONNECTED frame
     * until the connection is lost or closed. Takes no lock; a snapshot.
     */
    bool isConnected() const;

    /**
     * At most count listener calls run at once (default 16; values below 1
     * count as 1). Every message still gets a worker thread of its own; once
     * count workers are busy, the client reads nothing more from the broker
     * until one of them returns, so the broker's frames wait in the socket
     * and TCP holds the broker back. A receipt for listenOnQueue or
     * stopListeningOnQueue waits behind them too. The first time all are busy
     * on a connection, the library logs "All N message workers are busy:
     * reading from the broker pauses until one finishes." Takes effect for
     * the next message; may be called at any time.
     *
     * @param count the most listener calls at once; below 1 counts as 1
     */
    void setMaxWorkers(int count);

    /**
     * The stack size, in bytes, of each worker thread that runs onMessage
     * (default 256 KiB; raised to the system's minimum when smaller, and to
     * 1 MiB in builds with AddressSanitizer or ThreadSanitizer). A listener
     * that needs a deeper stack sets a larger one. The library keeps these
     * stacks mapped and reuses them, each with a guard page below it. Takes
     * effect for the next message; may be called at any time.
     *
     * @param bytes the stack size; rounded up to whole pages
     */
    void setWorkerStackSize(size_t bytes);

    /**
     * Runs listeners on a fixed number of long-lived worker threads instead
     * of a thread started for each message. The threads start with each
     * connection's listen thread and end with it; each MESSAGE goes to a
     * free one. At most threads onMessage calls run at once (setMaxWorkers
     * no longer applies) and reading from the broker pauses while all are
     * busy. The ACK or NACK is written as soon as a call returns; the stack
     * size set by setWorkerStackSize applies to the pool's threads. A
     * listener that never returns blocks its thread for the rest of the
     * connection (the others go on); when the connection ends, its message
     * stays unacknowledged and the thread is left to end once the call
     * returns. Subscriptions then take short ids: "subscription/" and a
     * number unique in the process, which is also what the "subscription"
     * header of their messages holds (a UUID follows the prefix otherwise).
     * See docs/receiving.md for which delivery suits which listener.
     *
     * @param threads the number of worker threads; 1 or more
     * @throws std::invalid_argument for fewer than 1 thread
     * @throws std::logic_error after openConnection
     */
    void useWorkerPool(int threads);

    /**
     * Hands the messages of one destination to its listener one at a time,
     * in the order the broker sent them; their ACKs and NACKs leave in that
     * order. Different destinations still run at the same time, on threads
     * of their own or on the pool of useWorkerPool. Each SUBSCRIBE then asks
     * the broker to keep at most 512 of the subscription's messages
     * unacknowledged (the headers "prefetch-count" for RabbitMQ and
     * "activemq.prefetchSize" for ActiveMQ, both always), so a listener
     * that is slow on one queue leaves the others flowing; listenOnQueue
     * refuses these two headers. A broker that sends beyond the bound is
     * read no further until the listener has taken a message.
     * Subscriptions take short ids, as with useWorkerPool.
     *
     * @throws std::logic_error after openConnection
     */
    void enableOrderedDelivery();

    /**
     * Every connection of this client runs over TLS (1.2 or later), on the
     * same socket and within the same time-outs as plain TCP: the TLS
     * handshake shares the 5 s of the TCP connect. A handshake that fails
     * (an untrusted certificate, a wrong name, a broker that does not speak
     * TLS) is a failed connection attempt: logged with "Failed to connect
     * on first try, " or "Reconnect failed with: " and a reason that names
     * the failure, then retried. Without this call connections are plain
     * TCP. docs/security.md explains the set-up.
     *
     * @param options what to trust and what to present; copied
     * @throws std::logic_error when called after openConnection
     */
    void useTls(const TlsOptions& options);

    /**
     * Honours the heart-beats agreed in CONNECT and CONNECTED. The client
     * sends a heart-beat (a line feed) whenever it has written nothing for
     * the larger of its own first figure and the broker's second one, and
     * takes the connection as lost when nothing at all has come from the
     * broker for twice the larger of its own second figure and the broker's
     * first one: it logs (error) "No data from the broker for N ms, twice
     * its heart-beat interval of M ms: the connection is taken as lost.",
     * then "Disconnected!", and reconnects. A figure of 0 on either side
     * switches that direction off. While every message worker is busy
     * (setMaxWorkers) nothing is read, so the broker's silence is not
     * judged then. Without this call the figures are still sent in CONNECT,
     * but the client neither sends heart-beats nor watches the broker's.
     *
     * @throws std::logic_error when called after openConnection
     */
    void enableHeartbeats();

    /**
     * Adds a broker to fall back on. A failed connection attempt moves on to
     * the next broker: the one given to the constructor first, then those
     * added, in the order added, then around again. A connection that stands
     * stays where it is, and a lost one is first made again with the same
     * broker. Every listener is subscribed on whichever broker the client
     * connects to. With failover brokers set, each attempt logs "Trying the
     * broker HOST:PORT." first. Login, passcode, heart-beats and TLS are the
     * same for all.
     *
     * @param host the broker's name or address
     * @param port its STOMP port
     * @throws std::logic_error when called after openConnection
     */
    void addFailoverBroker(std::string host, int port);

    /**
     * Bounds what the client accepts from the broker: a line (the command or
     * a header) longer than maxLineBytes, or a body longer than maxBodyBytes
     * (also one announced by "content-length"), makes the read fail as a
     * malformed frame (status 20014) as soon as the limit is passed, before
     * memory past it is taken. That is logged and the connection is made
     * again, as for any malformed frame. 0 means no limit (the default).
     *
     * @param maxLineBytes the longest line accepted, without its line feed; 0 for no limit
     * @param maxBodyBytes the longest body accepted; 0 for no limit
     * @throws std::logic_error when called after openConnection
     */
    void setFrameLimits(std::size_t maxLineBytes, std::size_t maxBodyBytes);

    /**
     * Keeps every message sendToQueue accepts until the broker confirms it,
     * across outages, reconnects, failover and, with a file, crashes and
     * power loss. sendToQueue then stores the message and returns at once,
     * connected or not, and throws OutboxException when it cannot keep it
     * (a full outbox that refuses new messages, a storage failure). A sender
     * thread of the client writes the kept messages in the order accepted,
     * each SEND with a "receipt", "persistent:true" (unless the application
     * gave "persistent") and a "tavren-id" unique to the message and the
     * same on every resend, so that a receiver can drop duplicates. A
     * RECEIPT forgets its message. An ERROR answering one means the broker
     * refused it: it is logged with its destination, tavren-id and the
     * broker's "message" header, and never sent again. A message not
     * confirmed within 10 s costs the connection, which is made again. Each
     * new connection first sends again, in order, everything not confirmed.
     * A file outbox that holds messages from an earlier run sends them first
     * (logged with their number). closeConnection and the destructor leave
     * unconfirmed messages in a file for the next run; in memory they are
     * lost, and one error line says how many. docs/outbox.md says what is
     * guaranteed and what each option costs.
     *
     * @param options where and how much to keep; copied
     * @throws std::logic_error when called after openConnection, or for a
     *         file in a library built without file outboxes
     * @throws OutboxException when the file is used by another client or
     *         cannot be made
     */
    void useOutbox(const OutboxOptions& options);

    /** Messages kept and not yet confirmed by the broker; 0 without an outbox. */
    std::size_t pendingMessages() const;

    /**
     * Waits until the broker has confirmed every kept message.
     *
     * @param timeoutMs the longest wait, in milliseconds
     * @return true once pendingMessages() is 0 (at once without an outbox),
     *         false when the time ran out first
     */
    bool waitForConfirmations(long timeoutMs);

    /**
     * Puts "host: host" on every CONNECT, whatever the protocol version;
     * RabbitMQ takes it as the virtual host to work in (a virtual host made
     * with "rabbitmqctl add_vhost NAME --default-queue-type quorum" makes
     * every queue declared in it a quorum queue, see docs/brokers.md).
     * Without this call, or with an empty name, CONNECT carries no "host"
     * header.
     *
     * @param host the virtual host's name
     * @throws std::logic_error ("setVirtualHost must be called before
     *         openConnection.") when called after openConnection
     */
    void setVirtualHost(std::string host);

private:
    kelvra::UniquePtr<tavren::internal::StompClientImpl> impl;
    std::string clientName;
};

} // namespace tavren

#endif
