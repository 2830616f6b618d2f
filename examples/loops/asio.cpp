// The library in a program whose loop is Boost.Asio's: asio waits for the descriptor of the
// library's event loop, and has it serve what is pending.
//
//     loops-asio

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdio>

#include "Orb/EventLoop.h"

namespace {

namespace asio = boost::asio;

class Served {
 public:
  Served(asio::io_context& context, Orb::EventLoop& loop)
      : descriptor_(context, loop.fd()), loop_(loop) {
    wait();
  }
  // The descriptor is the loop's to close.
  ~Served() { descriptor_.release(); }

 private:
  void wait() {
    descriptor_.async_wait(asio::posix::stream_descriptor::wait_read,
                           [this](const boost::system::error_code& error) {
                             if (error) return;
                             loop_.runPending();
                             wait();
                           });
  }

  asio::posix::stream_descriptor descriptor_;
  Orb::EventLoop& loop_;
};

}  // namespace

int main() {
  asio::io_context context;
  const Served served(context, Orb::eventLoop());
  // Something of the library's, and something of asio's; it ends when both have come.
  int left = 2;
  const auto came = [&](const char* what) {
    std::printf("%s\n", what);
    if (--left == 0) context.stop();
  };
  const auto timer =
      Orb::eventLoop().after(std::chrono::milliseconds(10), [&] { came("the library's timer"); });
  asio::steady_timer own(context, std::chrono::milliseconds(15));
  own.async_wait([&](const boost::system::error_code&) { came("asio's timer"); });
  context.run();
}
