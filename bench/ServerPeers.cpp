// The peers' servers. All of them only wait for readiness: the reads and writes are the protocol's.

#include <event2/event_struct.h>
#include <uv.h>

#include <boost/asio/ip/tcp.hpp>
#include <deque>
#include <vector>

#include "Peers.h"
#include "Servers.h"

namespace Bench {

void serveWithLibevent(std::vector<int> const& connections, Requests& requests) {
  struct Service {
    Requests& requests;
    event_base* base;
  };
  LibeventBase const base = makeLibeventBase(libeventPlain);
  Service service{requests, base.get()};
  std::deque<event> events;
  for (int const fd : connections) {
    event_assign(
        &events.emplace_back(), base.get(), fd, EV_READ | EV_PERSIST,
        [](evutil_socket_t readable, short, void* data) {
          auto& self = *static_cast<Service*>(data);
          self.requests.reported();
          if (self.requests.answer(readable)) event_base_loopbreak(self.base);
        },
        &service);
    event_add(&events.back(), nullptr);
  }
  event_base_dispatch(base.get());
  for (event& each : events)
    event_del(&each);
}

void serveWithUv(std::vector<int> const& connections, Requests& requests) {
  struct Connection {
    uv_poll_t poll;
    int fd;
    Requests* requests;
  };
  std::deque<Connection> handles;
  UvLoop loop;
  for (int const fd : connections) {
    Connection& connection = handles.emplace_back();
    connection.fd = fd;
    connection.requests = &requests;
    uv_poll_init(loop.get(), &connection.poll, fd);
    connection.poll.data = &connection;
    uv_poll_start(&connection.poll, UV_READABLE, [](uv_poll_t* handle, int, int) {
      auto& self = *static_cast<Connection*>(handle->data);
      self.requests->reported();
      if (self.requests->answer(self.fd)) uv_stop(handle->loop);
    });
  }
  uv_run(loop.get(), UV_RUN_DEFAULT);
}

void serveWithAsio(std::vector<int> const& connections, Requests& requests) {
  using boost::asio::ip::tcp;
  struct Connection {
    Connection(AsioContext& asioContext, Requests& all, int fd)
        : context(asioContext), requests(all), socket(asioContext, tcp::v4(), fd) {}
    ~Connection() { socket.release(); }
    void next() {
      socket.async_wait(tcp::socket::wait_read, [this](boost::system::error_code const& error) {
        if (!error) readable();
      });
    }
    void readable() {
      requests.reported();
      if (requests.answer(socket.native_handle())) {
        context.stop();
      } else {
        next();
      }
    }
    AsioContext& context;
    Requests& requests;
    tcp::socket socket;
  };
  AsioContext context;
  std::deque<Connection> sockets;
  for (int const fd : connections)
    sockets.emplace_back(context, requests, fd).next();
  context.run();
}

}  // namespace Bench
