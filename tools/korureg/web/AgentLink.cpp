#include "korureg/web/AgentLink.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "board/service/JsonText.h"
#include "korureg/AgentAnswer.h"
#include "korureg/AgentClient.h"

namespace korureg::web {

namespace {

constexpr size_t longestLine = 1 << 26;
constexpr size_t mostToSend = 1 << 22;  // bytes, to one that does not read
constexpr size_t mostAtOnce = 1 << 20;  // bytes, before others have their turn

const char* hintFor(int error) {
  if (error == ENOENT || error == ECONNREFUSED) return "; start korud, or name its socket";
  if (error == EACCES) return "; the group of the agent may talk to it";
  return "";
}

}  // namespace

bool AgentLink::connect() {
  if (socket_) return true;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    why_ = fmt::format("the path of the socket is too long: {}", path_);
    return false;
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  Orb::Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  if (!made || ::connect(made.get(), generic, sizeof address) != 0) {
    const int error = errno;
    const std::string reason = std::generic_category().message(error);
    why_ = fmt::format("there is no agent at {}: {}{}", path_, reason, hintFor(error));
    return false;
  }
  socket_ = std::move(made);
  why_.clear();
  ears_.changed();
  return true;
}

void AgentLink::lose(const std::string& why) {
  socket_.reset();
  ++lives_;
  why_ = why;
  out_.clear();
  in_.clear();
  sent_ = searched_ = 0;
  // Those that are asked from here on are others.
  for (const auto& [id, question] : std::exchange(questions_, {})) question.then(nullptr, why);
  ears_.changed();
}

void AgentLink::ask(Json request, Then then) {
  if (!connect()) {
    then(nullptr, why_);
    return;
  }
  if (out_.size() - sent_ > mostToSend) return then(nullptr, "the agent takes no more");
  request["id"] = ++last_;
  out_ += request.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
  questions_[last_] = {std::move(then), Clock::now() + patience_};
}

void AgentLink::send() {
  while (hasToSend()) {
    const ssize_t count =
        ::send(socket_.get(), out_.data() + sent_, out_.size() - sent_, MSG_NOSIGNAL);
    if (count < 0) {
      // (One that has hung up is found where it is read.)
      if (errno != EAGAIN && errno != EINTR) out_.clear(), sent_ = 0;
      return;
    }
    sent_ += static_cast<size_t>(count);
  }
  out_.clear();
  sent_ = 0;
}

void AgentLink::receive() {
  char piece[1 << 16];
  const uint64_t life = lives_;
  for (size_t taken = 0; taken < mostAtOnce;) {
    const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) return lose("the agent has gone");
    taken += static_cast<size_t>(count);
    in_.append(piece, static_cast<size_t>(count));
    size_t begin = 0;
    for (size_t end; (end = in_.find('\n', searched_)) != std::string::npos;) {
      const std::string line = in_.substr(begin, end - begin);
      searched_ = begin = end + 1;
      take(line);
      if (lives_ != life) return;  // (There may be another one already.)
    }
    in_.erase(0, begin);
    searched_ = in_.size();
    if (in_.size() > longestLine) return lose(AgentClient::senseless);
  }
}

void AgentLink::take(const std::string& line) {
  const Json said =
      Board::isTooDeep(line) ? Json() : Json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!said.is_object()) return lose(AgentClient::senseless);
  // Whatever it is that answers.
  try {
    if (said.contains("event")) return ears_.event(said);
    if (!said.contains("id")) return lose(textAt(said.value("error", Json::object()), "message"));
    const auto found = questions_.find(numberAt(said, "id").value_or(0));
    if (found == questions_.end()) return;  // nobody waits for it any more
    const Then then = std::move(found->second.then);
    questions_.erase(found);
    try {
      then(&said, line);
    } catch (const std::exception&) {
      then(nullptr, AgentClient::senseless);
    }
  } catch (const std::exception&) {
    lose(AgentClient::senseless);
  }
}

void AgentLink::serve(Clock::time_point now) {
  if (socket_) send();
  if (socket_) receive();
  while (!questions_.empty()) {
    const auto oldest = questions_.begin();
    if (oldest->second.deadline > now) break;
    const Then then = std::move(oldest->second.then);
    questions_.erase(oldest);
    then(nullptr, fmt::format("the agent does not answer within {:g} s",
                              std::chrono::duration<double>(patience_).count()));
  }
  if (socket_) send();  // what was asked meanwhile
}

Clock::time_point AgentLink::next() const {
  return questions_.empty() ? never : questions_.begin()->second.deadline;
}

}  // namespace korureg::web
