#include "BreloDaemon/Listener.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "BreloDaemon/Connector.h"
#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/internal/SocketAddress.h"
#include "daemon/support/StreamPair.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/FaultInjection.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;

class ListenerTest : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(ListenerTest);

void echo(Stream& client) {
  client.receive([&client](std::string_view bytes) {
    client.send(bytes);
    return bytes.size();
  });
}

/// Nobody need listen there yet.
Peer connectTo(std::string const& address) {
  auto const parsed = SocketAddress::parse(address);
  Descriptor fd(::socket(parsed.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_TRUE(loopUntil([&] { return ::connect(fd.get(), parsed.get(), parsed.size()) == 0; }))
      << address;
  return Peer(std::move(fd));
}

bool answers(Peer& peer) {
  std::string got;
  peer.write("ping");
  return loopUntil([&] { return (got += peer.read()).size() == 4 || peer.ended(); }) &&
         got == "ping";
}

TEST(SocketAddress, NamesOfUnixSocketsAreAsLongAsTheKernelTakesThem) {
  std::string const path = "/" + std::string(106, 'p');  // and a zero
  std::string const name = "unix:@" + std::string(107, 'n');
  EXPECT_EQ(SocketAddress::parse(path).path(), path);
  EXPECT_FALSE(SocketAddress::parse(path + "p"));
  EXPECT_EQ(SocketAddress::parse(name).text(), name);
  EXPECT_FALSE(SocketAddress::parse(name + "n"));
  EXPECT_EQ(SocketAddress::parse("unix:@n").text(), "unix:@n");
  EXPECT_FALSE(SocketAddress::parse("unix:@"));
}

TEST_P(ListenerTest, ServesAtEveryAddress) {
  run([] {
    std::string const path = "/tmp/brelo-listener-" + std::to_string(::getpid());
    Listener listener(Brelo::schedulerRootBrelo(),
                      {"127.0.0.1:0", "[::1]:0", path, "unix:@brelo" + path, "*:0"}, echo);
    ASSERT_EQ(listener.addresses().size(), 6);
    std::vector<std::string> addresses = listener.addresses();
    addresses.push_back(addresses[1]);
    addresses.back().insert(addresses.back().find(']'), "%lo");
    for (std::size_t const i : {0, 1, 2, 3, 6}) {
      Peer peer = connectTo(addresses[i]);
      EXPECT_TRUE(answers(peer)) << addresses[i];
    }
    EXPECT_EQ("127.0.0.1:" + std::to_string(listener.port()), listener.addresses()[0]);
    EXPECT_TRUE(loopUntil([&] { return listener.connections() == 0; }));
    Peer last = connectTo(path);
    EXPECT_TRUE(answers(last));
    listener.stopAccepting();
    EXPECT_TRUE(answers(last));
    EXPECT_FALSE(std::filesystem::exists(path));
    listener.close();
    EXPECT_TRUE(loopUntil([&] { return listener.connections() == 0; }));
    last.read();
    EXPECT_TRUE(last.ended());
    EXPECT_FALSE(std::filesystem::exists(path));
  });
}

/// A path in a folder of its own, which goes with the object.
struct Folder {
  Folder() {
    std::string name = "/tmp/brelo-listener-XXXXXX";
    EXPECT_NE(::mkdtemp(name.data()), nullptr);
    path = name;
  }
  ~Folder() { std::filesystem::remove_all(path); }
  std::string at(char const* name) const { return path + "/" + name; }

  std::string path;
};

bool isRefused(Addresses const& addresses) {
  try {
    Listener const listener(Brelo::schedulerRootBrelo(), addresses, echo);
    return false;
  } catch (std::system_error const& error) {
    EXPECT_NE(std::string(error.what()).find(addresses.texts()[0]), std::string::npos);
    return true;
  }
}

TEST_P(ListenerTest, ReplacesOnlySocketFilesThatAreDead) {
  run([] {
    Folder const folder;
    std::string const path = folder.at("socket");
    auto const root = Brelo::schedulerRootBrelo();
    std::ofstream(folder.at("file")) << "precious";
    std::filesystem::create_symlink(path, folder.at("link"));
    EXPECT_TRUE(isRefused(folder.at("file")));
    EXPECT_TRUE(isRefused(folder.at("link")));
    EXPECT_TRUE(isRefused(folder.path));
    EXPECT_TRUE(isRefused(folder.at("none/socket")));
    EXPECT_EQ(std::filesystem::file_size(folder.at("file")), 8);

    auto const address = SocketAddress::parse(path);
    Descriptor other(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(other.get(), address.get(), address.size()), 0);
    ASSERT_EQ(::listen(other.get(), 1), 0);
    EXPECT_TRUE(isRefused(path));
    {
      Peer const still = connectTo(path);
      EXPECT_TRUE(Descriptor(::accept4(other.get(), nullptr, nullptr, SOCK_CLOEXEC)));
    }
    other.reset();  // nobody removes the file

    ListenerOptions options;
    options.unixMode = 0606;
    auto listener = std::make_unique<Listener>(root, path, echo, options);
    EXPECT_TRUE(isRefused(path));
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0606));
    Peer peer = connectTo(path);
    EXPECT_TRUE(answers(peer));
    EXPECT_TRUE(passesInChild([&] { listener.reset(); }));  // the file is not a fork's
    EXPECT_TRUE(std::filesystem::is_socket(path));

    std::filesystem::rename(path, folder.at("moved"));
    std::ofstream(path) << "by somebody else";
    listener.reset();
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
    std::filesystem::rename(folder.at("moved"), path);
    listener = std::make_unique<Listener>(root, path, echo);
    listener.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
  });
}

TEST_P(ListenerTest, SaysWhichCallItsAddressFailedAt) {
  run([] {
    Folder const folder;
    std::string const path = folder.at("socket");
    struct {
      std::string address;
      std::vector<char const*> calls;
    } const rows[] = {{"127.0.0.1:0", {"socket", "setsockopt", "bind"}},
                      {"*:0", {"socket", "setsockopt", "bind"}},
                      {"unix:@" + path, {"socket", "bind"}},
                      {path, {"socket", "fchmod", "bind", "chmod"}}};
    ListenerOptions options;
    options.unixMode = 0600;
    auto const root = Brelo::schedulerRootBrelo();
    { Listener const opensWhatStaysOpen(root, "127.0.0.1:0", echo); }
    for (auto const& [address, calls] : rows) {
      for (char const* const call : calls) {
        unsigned const open = openDescriptors();
        FaultInjection const faults({{call, {EMFILE}}});
        try {
          Listener const listener(root, address, echo, options);
          ADD_FAILURE() << address << " in spite of " << call;
        } catch (std::system_error const& error) {
          EXPECT_EQ(error.code().value(), EMFILE) << address << ": " << call;
          EXPECT_NE(std::string(error.what()).find(std::string(": ") + call), std::string::npos)
              << error.what();
        }
        EXPECT_EQ(openDescriptors(), open) << address << ": " << call;
        EXPECT_FALSE(std::filesystem::exists(path)) << call;
      }
    }
  });
}

TEST_P(ListenerTest, IsAtEveryAddressOfAMachineWithoutTheNewerOnes) {
  run([] {
    auto const root = Brelo::schedulerRootBrelo();
    for (Faults const& faults :
         {Faults{{"socket", {0, EAFNOSUPPORT}}}, Faults{{"bind", {0, EADDRNOTAVAIL}}}}) {
      FaultInjection const injection(faults);
      EXPECT_EQ(Listener(root, "*:0", echo).addresses().size(), 1U);
    }
    FaultInjection const injection({{"bind", {0, EACCES}}});
    EXPECT_THROW(Listener(root, "*:0", echo), std::system_error);
  });
}

TEST_P(ListenerTest, WaitsWhereDescriptorsRunOutOrConnectionsAreMany) {
  run([] {
    auto const root = Brelo::schedulerRootBrelo();
    ListenerOptions options;
    options.connectionsMax = 2;
    Listener listener(root, "127.0.0.1:0", echo, options);
    std::string const& address = listener.addresses()[0];
    Peer first = connectTo(address);
    EXPECT_TRUE(answers(first));
    {
      // Spinning would use them all up.
      FaultInjection const faults({{"accept4", {ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM}}});
      Peer second = connectTo(address);
      for (int i = 0; i < 20; ++i)
        Brelo::Platform::doEventLoopInWaitfor(0.001);
      EXPECT_EQ(faults.left().at("accept4").size(), 3);
      EXPECT_EQ(listener.connections(), 1);
    }
    first.close();  // goes on as soon as one ends
    double const start = Brelo::time();
    EXPECT_TRUE(loopUntil([&] { return listener.connections() == 0; }));
    Peer third = connectTo(address);
    EXPECT_TRUE(answers(third));
    EXPECT_LT(Brelo::time() - start, 0.1);

    Peer fourth = connectTo(address);
    EXPECT_TRUE(answers(fourth));
    Peer fifth = connectTo(address);
    fifth.write("ping");
    loopABit();
    EXPECT_EQ(listener.connections(), 2);
    EXPECT_EQ(fifth.read(), "");
    third.close();
    EXPECT_TRUE(loopUntil([&] { return fifth.read() == "ping"; }));
    {
      FaultInjection const faults({{"accept4", {EMFILE}}});
      fourth.close();
      Peer sixth = connectTo(address);  // that one ends, or time passes
      EXPECT_TRUE(answers(sixth));
    }
  });
}

TEST_P(ListenerTest, EndsAtOnceFromItsCallbacksAndNotByTheirExceptions) {
  run([] {
    auto const root = Brelo::schedulerRootBrelo();
    int thrown = 0;
    root->taskExceptionHandlerIs([&](Brelo::_TaskBase&) { return ++thrown > 0; });
    std::unique_ptr<Listener> listener;
    std::shared_ptr<Stream> kept;
    std::optional<StreamEnd> end;
    int begun = 0;
    listener = std::make_unique<Listener>(root, "127.0.0.1:0", [&](Stream& client) {
      client.receive([&](std::string_view bytes) {
        if (bytes == "end") listener.reset();
        if (bytes == "throw") throw std::runtime_error("of a stream");
        if (bytes != "keep") return bytes.size();
        kept = client.shared_from_this();
        client.onEnd([&](StreamEnd reason, std::error_code) { end = reason; });
        client.send("kept");
        return bytes.size();
      });
      if (++begun == 4) throw std::runtime_error("of the callback");
    });
    Peer peers[4];
    for (int i = 0; i < 4; ++i) {
      peers[i] = connectTo(listener->addresses()[0]);
      EXPECT_TRUE(loopUntil([&] { return begun > i; }));
    }
    EXPECT_TRUE(loopUntil([&] { return listener->connections() == 3 && thrown == 1; }));
    peers[0].write("throw");
    EXPECT_TRUE(loopUntil([&] { return listener->connections() == 2 && thrown == 2; }));
    peers[1].write("keep");
    EXPECT_TRUE(loopUntil([&] { return peers[1].read() == "kept"; }));
    peers[2].write("end");
    EXPECT_TRUE(loopUntil([&] { return end == StreamEnd::aborted; }));
    for (Peer& each : peers) {
      each.read();
      EXPECT_TRUE(each.ended() || each.reset());
    }
  });
}

TEST_P(ListenerTest, EndsFromWhatItsOrderlyEndCalls) {
  run([] {
    auto listener = std::make_unique<Listener>(Brelo::schedulerRootBrelo(), "127.0.0.1:0", echo);
    std::string said;
    listener->onStop([&, text = std::string(100, 'x')](Stream&) {
      listener.reset();
      said += text;
    });
    Peer peers[2];
    for (Peer& each : peers) {
      each = connectTo(listener->addresses()[0]);
      EXPECT_TRUE(answers(each));
    }
    listener->close();
    EXPECT_EQ(said, std::string(100, 'x'));
  });
}

TEST_P(ListenerTest, ADaemonEndsOnceItsStreamsHaveSentEverything) {
  run([] {
    Daemon daemon("test");
    std::string const answer(3'000'000, 'x');
    Connector connector(daemon.scheduler());
    std::error_code canceled;
    Listener listener(daemon.scheduler(), "127.0.0.1:0", [&](Stream& client) {
      client.receive([&](std::string_view bytes) {
        client.send(answer);
        daemon.stop();
        return bytes.size();
      });
    });
    listener.onStop([](Stream& client) {
      client.send("good bye");
      client.close();
    });
    Peer peer = connectTo(listener.addresses()[0]);
    Peer const other = connectTo(listener.addresses()[0]);
    std::string got;
    FunctionTask reader(daemon.scheduler(), Brelo::TaskPriority::normal, "reader",
                        [&](Brelo::TaskImpl& task) {
                          got += peer.read();
                          if (!peer.ended()) task.scheduleTask();
                        });
    reader.schedule();
    connector.connect("unix:@nobody", [&](auto, std::error_code error) { canceled = error; });
    std::shared_ptr<Stream> upstream;
    connector.connect(listener.addresses()[0], [&](std::shared_ptr<Stream> made, auto) {
      upstream = std::move(made);
      upstream->receive([](std::string_view) { return std::size_t{0}; });
      upstream->halfOpenIs(true);
      peer.write("please");
    });
    EXPECT_EQ(daemon.run(), 0);
    EXPECT_EQ(got.size(), answer.size() + 8);
    EXPECT_EQ(listener.connections(), 0);
    EXPECT_TRUE(canceled);
    EXPECT_TRUE(upstream->ended());
  });
}

/// A program that has been handed a socket: started by the next test and by the service manager's
/// own tool.
TEST(ListenerHandedOver, ServesIt) {
  if (std::getenv("LISTEN_FDNAMES") == nullptr) GTEST_SKIP() << "nothing has been handed over";
  auto const root = Brelo::schedulerRootBrelo();
  EXPECT_TRUE(isRefused("systemd:other"));
  int served = 0;
  Listener listener(root, "systemd:web", [&](Stream& client) {
    echo(client);
    client.onEnd([&](StreamEnd, std::error_code) { ++served; });
  });
  EXPECT_TRUE(isRefused("systemd:web"));  // each is given out once
  EXPECT_EQ(::fcntl(3, F_GETFD), FD_CLOEXEC);
  EXPECT_TRUE(loopUntil([&] { return served == 1; }));
}

/// Starts this program as `start` says, in a child, and has it answer at the path.
void expectServedBy(std::string const& path, std::function<void(char const* program)> start) {
  std::fflush(stdout);
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    start("/proc/self/exe");
    ::_exit(9);
  }
  {
    Peer peer = connectTo(path);
    EXPECT_TRUE(answers(peer));
  }
  int status = 0;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
}

TEST(ListenerHandedOver, ByTheServiceManager) {
  Folder const folder;
  std::string const filter = "--gtest_filter=ListenerHandedOver.ServesIt";
  expectServedBy(folder.at("direct"), [&](char const* program) {
    auto const address = SocketAddress::parse(folder.at("direct"));
    int const fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::bind(fd, address.get(), address.size()) != 0 || ::listen(fd, 1) != 0) return;
    ::dup2(fd, 3);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_FDNAMES", "web", 1);
    ::execl(program, program, filter.c_str(), nullptr);
  });
  char const* const tool = "/usr/bin/systemd-socket-activate";
  if (::access(tool, X_OK) != 0) GTEST_SKIP() << "without " << tool;
  std::string const program = std::filesystem::read_symlink("/proc/self/exe");
  expectServedBy(folder.at("tool"), [&](char const*) {
    ::execl(tool, tool, "-l", folder.at("tool").c_str(), "--fdname=web", program.c_str(),
            filter.c_str(), nullptr);
  });
}

}  // namespace
}  // namespace BreloDaemon
