// Echo servers on buffered connections: the project's streams, and what the peers have.

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <fcntl.h>
#include <uv.h>

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/Stream.h"
#include "Peers.h"
#include "Servers.h"

namespace Bench {

namespace {

/// For who closes what it serves.
int another(int fd) {
  return fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

}  // namespace

void serveWithStreams(std::vector<int> const& connections, Requests& requests) {
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  auto const group =
      Brelo::TaskGroup::TaskGroupIs("connections", Brelo::TaskPriority::normal, false, root);
  std::vector<std::shared_ptr<BreloDaemon::Stream>> streams;
  for (int const fd : connections) {
    auto const stream = streams.emplace_back(std::make_shared<BreloDaemon::Stream>(
        group, Brelo::TaskPriority::normal, "connection", BreloDaemon::Descriptor(another(fd))));
    stream->receive([&, self = stream.get()](std::string_view bytes) {
      self->send(bytes);
      if (requests.answered()) {
        for (auto const& each : streams)
          each->abort();
      }
      return bytes.size();
    });
  }
  Brelo::Platform::doEventLoop();
}

void serveWithBufferevents(std::vector<int> const& connections, Requests& requests) {
  struct Service {
    Requests& requests;
    event_base* base;
  };
  LibeventBase const base = makeLibeventBase(libeventPlain);
  Service service{requests, base.get()};
  std::vector<bufferevent*> all;
  for (int const fd : connections) {
    all.push_back(bufferevent_socket_new(base.get(), fd, 0));
    bufferevent_setcb(
        all.back(),
        [](bufferevent* connection, void* data) {
          auto& self = *static_cast<Service*>(data);
          bufferevent_write_buffer(connection, bufferevent_get_input(connection));
          if (self.requests.answered()) event_base_loopbreak(self.base);
        },
        nullptr,
        [](bufferevent*, short, void* data) {
          event_base_loopbreak(static_cast<Service*>(data)->base);
        },
        &service);
    bufferevent_enable(all.back(), EV_READ | EV_WRITE);
  }
  event_base_dispatch(base.get());
  for (bufferevent* const each : all)
    bufferevent_free(each);
}

void serveWithUvStreams(std::vector<int> const& connections, Requests& requests) {
  struct Connection {
    uv_tcp_t stream;
    uv_write_t write;
    Requests* requests;
    std::array<char, 4 * requestSize> buffer;
  };
  std::deque<Connection> handles;
  UvLoop loop;
  for (int const fd : connections) {
    Connection& connection = handles.emplace_back();
    connection.requests = &requests;
    uv_tcp_init(loop.get(), &connection.stream);
    uv_tcp_open(&connection.stream, another(fd));
    connection.stream.data = &connection;
    uv_read_start(
        reinterpret_cast<uv_stream_t*>(&connection.stream),
        [](uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
          auto& self = *static_cast<Connection*>(handle->data);
          *buffer = uv_buf_init(self.buffer.data(), self.buffer.size());
        },
        [](uv_stream_t* stream, ssize_t length, uv_buf_t const* buffer) {
          if (length == 0) return;
          if (length < 0) return uv_stop(stream->loop);
          auto& self = *static_cast<Connection*>(stream->data);
          uv_buf_t const answer = uv_buf_init(buffer->base, static_cast<unsigned>(length));
          uv_write(&self.write, stream, &answer, 1, nullptr);
          if (self.requests->answered()) uv_stop(stream->loop);
        });
  }
  uv_run(loop.get(), UV_RUN_DEFAULT);
}

void serveWithAsioStreams(std::vector<int> const& connections, Requests& requests) {
  using boost::asio::ip::tcp;
  struct Connection {
    Connection(AsioContext& asioContext, Requests& all, int fd)
        : context(asioContext), requests(all), socket(asioContext, tcp::v4(), fd) {}
    ~Connection() {
      boost::system::error_code ignored;
      socket.release(ignored);
    }
    void read() {
      socket.async_read_some(boost::asio::buffer(buffer),
                             [this](boost::system::error_code const& error, std::size_t length) {
                               if (error) return context.stop();
                               answer(length);
                             });
    }
    void answer(std::size_t length) {
      boost::asio::async_write(socket, boost::asio::buffer(buffer.data(), length),
                               [this](boost::system::error_code const& error, std::size_t) {
                                 if (error || requests.answered()) return context.stop();
                                 read();
                               });
    }
    AsioContext& context;
    Requests& requests;
    tcp::socket socket;
    std::array<char, 4 * requestSize> buffer;
  };
  AsioContext context;
  std::deque<Connection> sockets;
  for (int const fd : connections)
    sockets.emplace_back(context, requests, fd).read();
  context.run();
}

}  // namespace Bench
