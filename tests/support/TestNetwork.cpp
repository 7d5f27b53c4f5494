// SPDX-License-Identifier: Apache-2.0
#include "support/TestNetwork.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <thread>

extern char** environ;

namespace tavren {
namespace test {

namespace {

const char* const kNamespacePrefix = "tavren-deadpeer-";
// Interface names have at most 15 characters: "tvdp", a process id of up to
// 7 digits, a letter for the end and a counter of up to 3 digits.
const char* const kLinkPrefix = "tvdp";
const char* const kNamespaceDir = "/var/run/netns/";
// 10.231.0.0/16 holds 16384 subnets of four addresses.
const int kSubnets = 16384;
const int kSubnetTries = 64;

std::atomic<int> networksMade(0);

std::string joined(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
    return line;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

// The process id in a name made by an earlier run ("<prefix><pid>..."), or 0.
pid_t ownerOf(const std::string& name, const std::string& prefix) {
    if (name.compare(0, prefix.size(), prefix) != 0) return 0;
    pid_t pid = 0;
    size_t i = prefix.size();
    for (; i < name.size() && name[i] >= '0' && name[i] <= '9'; ++i) pid = pid * 10 + (name[i] - '0');
    return i > prefix.size() ? pid : 0;
}

// The full path of an administration tool such as ip, tc or nft, or "".
std::string toolPath(const std::string& tool) {
    for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
        if (::access((dir + tool).c_str(), X_OK) == 0) return dir + tool;
    }
    return "";
}

bool processGone(pid_t pid) { return pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH; }

} // namespace

TestNetwork::TestNetwork() {
    ready = make();
    if (!ready && why.empty()) why = "the test network could not be made";
}

TestNetwork::~TestNetwork() {
    // Removing the host's end removes the pair at once; the namespace itself
    // goes once the last socket made in it is closed.
    if (linkMade && !ip({"link", "del", hostLink})) std::fprintf(stderr, "TestNetwork: %s\n", why.c_str());
    if (namespaceMade && !ip({"netns", "del", name})) std::fprintf(stderr, "TestNetwork: %s\n", why.c_str());
}

bool TestNetwork::make() {
    ipPath = toolPath("ip");
    if (ipPath.empty()) {
        why = "iproute2's ip is not installed";
        return false;
    }
    const pid_t pid = ::getpid();
    const int k = networksMade++;
    name = kNamespacePrefix + std::to_string(pid) + "-" + std::to_string(k);
    hostLink = kLinkPrefix + std::to_string(pid) + "h" + std::to_string(k);
    peerLink = kLinkPrefix + std::to_string(pid) + "n" + std::to_string(k);

    // A run the watchdog ended had no chance to clean up: its namespace and
    // link are removed here, once its process is gone.
    std::string listed;
    if (ip({"netns", "list"}, &listed)) {
        for (const std::string& line : linesOf(listed)) {
            const std::string stale = line.substr(0, line.find(' '));
            if (processGone(ownerOf(stale, kNamespacePrefix))) ip({"netns", "del", stale});
        }
    }
    if (ip({"-o", "link", "show"}, &listed)) {
        for (const std::string& line : linesOf(listed)) {
            const size_t start = line.find(": ");
            if (start == std::string::npos) continue;
            const std::string link = line.substr(start + 2, line.find_first_of("@:", start + 2) - start - 2);
            if (processGone(ownerOf(link, kLinkPrefix))) ip({"link", "del", link});
        }
    }

    if (!pickSubnet(k)) return false;
    if (!ip({"netns", "add", name})) {
        why = "cannot make a network namespace (needs root, or CAP_NET_ADMIN and CAP_SYS_ADMIN): " + why;
        return false;
    }
    namespaceMade = true;
    if (!ip({"link", "add", hostLink, "type", "veth", "peer", "name", peerLink, "netns", name})) return false;
    linkMade = true;
    std::string shown;
    if (!ip({"addr", "add", host + "/30", "dev", hostLink}) || !ip({"link", "set", hostLink, "up"}) ||
        !ip({"-n", name, "addr", "add", peer + "/30", "dev", peerLink}) ||
        !ip({"-n", name, "link", "set", peerLink, "up"}) || !ip({"-n", name, "-o", "link", "show", peerLink}, &shown)) {
        return false;
    }
    const size_t ether = shown.find("link/ether ");
    if (ether == std::string::npos) {
        why = "no hardware address in: " + shown;
        return false;
    }
    const std::string mac = shown.substr(ether + 11, 17);
    // Without this entry a vanished peer is looked for by ARP, which fails
    // and reports the host unreachable; with it the packets are just lost.
    return ip({"neigh", "replace", peer, "lladdr", mac, "dev", hostLink, "nud", "permanent"});
}

bool TestNetwork::pickSubnet(int k) {
    // From the process id, so that processes side by side start apart; a
    // subnet that any address or route of this machine meets is passed over.
    const int first = static_cast<int>((static_cast<long long>(::getpid()) * 4 + k) % kSubnets);
    for (int i = 0; i < kSubnetTries; ++i) {
        const int index = (first + i) % kSubnets;
        const std::string base = "10.231." + std::to_string(index / 64) + ".";
        const int low = index % 64 * 4;
        const std::string subnet = base + std::to_string(low) + "/30";
        std::string addresses, within, covering;
        if (!ip({"-4", "-o", "addr", "show", "to", subnet}, &addresses) ||
            !ip({"-4", "route", "show", "table", "all", "root", subnet}, &within) ||
            !ip({"-4", "route", "show", "table", "all", "match", subnet}, &covering)) {
            return false;
        }
        bool taken = !linesOf(addresses).empty() || !linesOf(within).empty();
        for (const std::string& line : linesOf(covering)) taken = taken || line.compare(0, 8, "default ") != 0;
        if (taken) continue;
        host = base + std::to_string(low + 1);
        peer = base + std::to_string(low + 2);
        return true;
    }
    why = "no free subnet of 10.231.0.0/16 in " + std::to_string(kSubnetTries) + " tries";
    return false;
}

bool TestNetwork::peerVanishes() { return ip({"-n", name, "link", "set", peerLink, "down"}); }

bool TestNetwork::peerReturns() { return ip({"-n", name, "link", "set", peerLink, "up"}); }

bool TestNetwork::inside(const std::vector<std::string>& command) {
    std::vector<std::string> args{"netns", "exec", name};
    args.insert(args.end(), command.begin(), command.end());
    return ip(args);
}

bool TestNetwork::dropRandomly(int percent) {
    const std::string nft = toolPath("nft");
    if (nft.empty()) {
        why = "nftables' nft is not installed";
        return false;
    }
    if (!inside({nft, "add", "table", "inet", "impair"})) return false;
    for (const char* hook : {"input", "output"}) {
        const std::string chain = std::string("impair-") + hook;
        if (!inside({nft, "add", "chain", "inet", "impair", chain,
                     "{ type filter hook " + std::string(hook) + " priority 0 ; policy accept ; }"}) ||
            !inside({nft, "add", "rule", "inet", "impair", chain, "numgen", "random", "mod", "100", "<",
                     std::to_string(percent), "drop"})) {
            return false;
        }
    }
    return true;
}

bool TestNetwork::limitRate(const std::string& rate) {
    const std::string tc = toolPath("tc");
    if (tc.empty()) {
        why = "iproute2's tc is not installed";
        return false;
    }
    const std::vector<std::string> bucket{"root", "tbf", "rate", rate, "burst", "16kbit", "latency", "400ms"};
    std::vector<std::string> here{"qdisc", "add", "dev", hostLink};
    std::vector<std::string> there{tc, "qdisc", "add", "dev", peerLink};
    here.insert(here.end(), bucket.begin(), bucket.end());
    there.insert(there.end(), bucket.begin(), bucket.end());
    return run(tc, here) && inside(there);
}

int TestNetwork::listenInside() {
    int listener = -1;
    const bool entered = runInside([&] {
        listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        ::inet_pton(AF_INET, peer.c_str(), &address.sin_addr);
        if (listener >= 0 && (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
                              ::listen(listener, 16) != 0)) {
            ::close(listener);
            listener = -1;
        }
    });
    if (entered && listener < 0) why = "cannot listen on " + peer + " in " + name + ": " + std::strerror(errno);
    return listener;
}

bool TestNetwork::runInside(const std::function<void()>& work) {
    const std::string path = kNamespaceDir + name;
    int failure = 0;
    const char* step = "";
    std::thread inside([&] {
        // Only this thread moves; the rest of the process stays where it is.
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            failure = errno;
            step = "open";
            return;
        }
        if (::setns(fd, CLONE_NEWNET) != 0) {
            failure = errno;
            step = "setns";
        }
        ::close(fd);
        if (failure == 0) work();
    });
    inside.join();
    if (failure != 0) why = std::string(step) + " " + path + ": " + std::strerror(failure);
    return failure == 0;
}

bool TestNetwork::ip(const std::vector<std::string>& args, std::string* output) { return run(ipPath, args, output); }

bool TestNetwork::run(const std::string& program, const std::vector<std::string>& args, std::string* output) {
    std::vector<std::string> words(1, program);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        why = joined(words) + ": pipe: " + std::strerror(errno);
        return false;
    }
    // posix_spawn rather than fork: other threads of the test run meanwhile.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
    pid_t child = 0;
    const int spawned = ::posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    std::string text;
    if (spawned == 0) {
        char buf[4096];
        ssize_t got;
        while ((got = ::read(out[0], buf, sizeof buf)) != 0) {
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) break;
            text.append(buf, static_cast<size_t>(got));
        }
    }
    ::close(out[0]);
    if (spawned != 0) {
        why = joined(words) + ": " + std::strerror(spawned);
        return false;
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (output) *output = text;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    why = "`" + joined(words) + "` failed" +
          (WIFEXITED(status) ? " (exit " + std::to_string(WEXITSTATUS(status)) + ")" : "") + ": " + text;
    return false;
}

} // namespace test
} // namespace tavren
