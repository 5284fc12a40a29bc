// SPDX-License-Identifier: GPL-3.0-or-later
// What a stranger can throw at the service, and the owner's request right after it: answered
// within a second. A SIGTERM in the middle of each flood (as systemd stops or restarts the
// service) ends it within two seconds.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <poll.h>

#include <QDir>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "service/Credentials.h"
#include "tests/service/ServiceFixture.h"
#include "tests/support/Wait.h"

namespace servicetest {
namespace {

using Clock = std::chrono::steady_clock;

// A connection from 127.0.0.N that sends nothing; -1 when it could not be made.
int bareConnection(int port, int from) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + std::uint32_t(from));
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(port));
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
        ::connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    return fd;
}

struct Flood {
    const char* name;
    QStringList arguments;
    std::vector<int> waves;  // bare connections opened, wave after wave, all held open
    int addresses;           // spread over 127.0.0.1 to 127.0.0.N
};

void PrintTo(const Flood& flood, std::ostream* os) {
    *os << flood.name;
}

// Connections that never send a byte are no storage's business: a service with its notes in a
// file stands for both.
class ConnectionFloodTest : public ::testing::TestWithParam<Flood> {
protected:
    void SetUp() override {
        server_ = std::make_unique<testsupport::NotesServerProcess>(GetParam().arguments);
        ASSERT_TRUE(server_->isRunning()) << server_->log().toStdString();
        ASSERT_TRUE(server_->addUser("me@example.org", "secret"));
        idle_ = serverSockets();
        {
            httplib::Client client("127.0.0.1", server_->port());
            const auto token =
                client.Post("/api/login", base64("email=me@example.org&password=secret"),
                            "application/x-www-form-urlencoded");
            ASSERT_TRUE(token && token->status == 200);
            index_ = "/api/index?auth=" + token->body + "&email=me@example.org";
        }
        ASSERT_TRUE(testsupport::waitUntil([this] { return serverSockets() == idle_; }));
    }
    void TearDown() override {
        for (const int fd : sockets_)
            ::close(fd);
    }

    // Runs the waves and waits until the service has dealt with them; the connections stay
    // open until closeAll().
    void open() {
        int n = 0;
        for (const int wave : GetParam().waves) {
            for (int i = 0; i < wave; ++i, ++n) {
                const int fd = bareConnection(server_->port(), 1 + n % GetParam().addresses);
                if (fd >= 0)
                    sockets_.push_back(fd);
            }
        }
        ASSERT_TRUE(testsupport::waitUntil([this] { return takenIn(); }, 10000));
    }
    // The service has dealt with every connection of the flood: taken it (a socket of its own)
    // or closed it (the client sees the end).
    bool takenIn() {
        int closed = 0;
        for (const int fd : sockets_) {
            pollfd p{fd, POLLIN, 0};
            char byte;
            closed += ::poll(&p, 1, 0) == 1 && ::recv(fd, &byte, 1, MSG_PEEK) <= 0 ? 1 : 0;
        }
        return serverSockets() - idle_ + closed >= int(sockets_.size());
    }
    int serverSockets() const {
        int n = 0;
        const QDir fds(QStringLiteral("/proc/%1/fd").arg(server_->pid()));
        for (const QFileInfo& fd : fds.entryInfoList(QDir::System | QDir::NoDotAndDotDot))
            n += fd.symLinkTarget().contains(QLatin1String("socket:")) ? 1 : 0;
        return n;
    }
    // Closes the flood's connections, and waits until the service has seen them go.
    void closeAll() {
        for (const int fd : sockets_)
            ::close(fd);
        sockets_.clear();
        EXPECT_TRUE(testsupport::waitUntil([this] { return serverSockets() <= idle_; }, 10000));
    }
    // How long the owner waited for the note list; a minute when it never came.
    std::chrono::milliseconds ownerWaited() {
        httplib::Client owner("127.0.0.1", server_->port());
        owner.set_connection_timeout(5);
        owner.set_read_timeout(5);
        const Clock::time_point began = Clock::now();
        const auto res = owner.Get(index_.c_str());
        if (!res || res->status != 200)
            return std::chrono::minutes(1);
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began);
    }

    std::unique_ptr<testsupport::NotesServerProcess> server_;
    std::string index_;
    std::vector<int> sockets_;
    int idle_ = 0;  // the service's sockets when it serves nobody
};

TEST_P(ConnectionFloodTest, TheOwnerIsAnsweredAfterItAndSigtermStopsItDuringIt) {
    open();
    closeAll();
    EXPECT_LT(ownerWaited(), std::chrono::seconds(1));
    open();
    EXPECT_TRUE(server_->terminate(2000)) << "SIGTERM during the flood";
}

INSTANTIATE_TEST_SUITE_P(
    Floods, ConnectionFloodTest,
    ::testing::Values(
        Flood{"ThousandBareConnectionsFromEightAddresses", {}, {1000}, 8},
        Flood{"TwentyThenTwentyFiveAtALimitOfTwenty", {"--max-connections", "20"}, {20, 25}, 1}),
    [](const auto& info) { return std::string(info.param.name); });

class LoginFloodTest : public ServiceTest {
protected:
    // Connections from random addresses (127.x.y.z) posting logins of made-up accounts, as fast
    // as they are answered, until stopped.
    void flood(int connections) {
        for (int i = 0; i < connections; ++i) {
            flooders_.emplace_back([this, i] {
                std::mt19937 random(unsigned(i) * 7919u);
                while (!stop_) {
                    httplib::Client client("127.0.0.1", server_->port());
                    const std::string from = "127." + std::to_string(1 + random() % 250) + "." +
                                             std::to_string(random() % 250) + "." +
                                             std::to_string(1 + random() % 250);
                    client.set_interface(from);
                    client.set_read_timeout(10);
                    for (int n = 0; n < 50 && !stop_; ++n) {
                        const auto res = client.Post(
                            "/api/login",
                            base64("email=" + std::to_string(random()) + "@example.org&password=x"),
                            "application/x-www-form-urlencoded");
                        answered_ += res ? 1 : 0;
                        // Turned away (the service has stopped): an attacker's own processor
                        // would spin on, not the machine's that the service shares here.
                        if (!res)
                            std::this_thread::sleep_for(std::chrono::milliseconds(20));
                    }
                }
            });
        }
    }
    void TearDown() override {
        stop_ = true;
        for (std::thread& t : flooders_)
            t.join();
    }

    std::atomic<bool> stop_{false};
    std::atomic<int> answered_{0};
    std::vector<std::thread> flooders_;
};

INSTANTIATE_TEST_SUITE_P(Backends, LoginFloodTest, kBackends, backendName);

// Passwords are checked off the workers that answer requests: while 32 connections post logins
// of made-up accounts from ever new addresses, each costing a full password check, the owner's
// requests are answered as quickly as ever, and a SIGTERM ends the service in two seconds.
TEST_P(LoginFloodTest, TheOwnerIsAnsweredAtOnceWhileLoginsPourIn) {
    startServer({}, [] {
        QProcessEnvironment env;
        // A password check that costs what a real one does.
        env.insert("FERRYBOX_NOTES_HASH_ITERATIONS", "600000");
        return env;
    }());
    const std::string owner = "/api/index" + auth();
    flood(32);
    ASSERT_TRUE(testsupport::waitUntil([this] { return answered_ > 0; }, 20000));
    std::vector<double> waited;
    httplib::Client client("127.0.0.1", server_->port());
    for (int i = 0; i < 100; ++i) {
        const Clock::time_point began = Clock::now();
        const auto res = client.Get(owner.c_str());
        ASSERT_TRUE(res && res->status == 200) << i;
        waited.push_back(std::chrono::duration<double, std::milli>(Clock::now() - began).count());
    }
    std::sort(waited.begin(), waited.end());
    EXPECT_LT(waited[98], 100.0) << "p99 in ms; the median was " << waited[50];
    EXPECT_TRUE(server_->terminate(2000)) << "SIGTERM during the flood";
}

// Wrong passwords sent all at once are counted as they come: five get their answer, the rest
// are told to wait, however many arrive together.
TEST_P(LoginFloodTest, GuessesAtTheSameMomentAreCountedOneByOne) {
    std::vector<std::thread> guesses;
    std::atomic<int> wrong{0}, held{0};
    for (int i = 0; i < 20; ++i) {
        guesses.emplace_back([&] {
            httplib::Client client("127.0.0.1", server_->port());
            const auto res = client.Post("/api/login",
                                         base64(std::string("email=") + kEmail + "&password=guess"),
                                         "application/x-www-form-urlencoded");
            wrong += res && res->status == 401 ? 1 : 0;
            held += res && res->status == 429 && res->get_header_value("Retry-After") == "60";
        });
    }
    for (std::thread& t : guesses)
        t.join();
    EXPECT_EQ(wrong, notes::LoginLimiter::kMaxFailures);
    EXPECT_EQ(held, 20 - notes::LoginLimiter::kMaxFailures);
}

}  // namespace
}  // namespace servicetest
