// With hiredis, whose headers stay in this file.
#include "platform/orrery/redis/RedisConnection.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/vela/PlainText.h"

namespace Orrery {
namespace {

constexpr size_t longestWords = 300;  // of the server, in a message
// The largest hash, with its lengths and line ends.
constexpr size_t mostReplyBytes = RedisConnection::mostHashBytes + 1024 * 1024;

// The connection is of no more use: the rest of the reply is never read.
class ReplyTooLarge : public RedisAway {
 public:
  ReplyTooLarge() : RedisAway("a reply of it is larger than 17 MiB") {}
};

RedisRefusal hashTooLarge(const std::string& key) {
  return RedisRefusal(fmt::format("{} is larger than 16 MiB; take fields out", key));
}

// A slow line is no reason to give up, one that hardly moves is.
std::chrono::microseconds transferTime(size_t bytes) {
  return std::chrono::microseconds(bytes);  // at 1 MB/s
}

timeval timeOf(std::chrono::milliseconds duration) {
  return {static_cast<time_t>(duration.count() / 1000),
          static_cast<suseconds_t>(duration.count() % 1000 * 1000)};
}

bool startsWith(std::string_view words, std::string_view code) { return words.starts_with(code); }

// What an operator does about an error that Redis answers with.
std::string remedy(std::string_view words) {
  const struct {
    std::string_view code;
    const char* text;
  } known[] = {
      {"OOM", "it is full: raise its maxmemory, or have it drop keys of others"},
      {"NOAUTH",
       "it wants a password: give one in the address, in a password-file or in "
       "$KORVEL_ORRERY_PASSWORD"},
      {"NOPERM", "let the user do it, with ACL SETUSER"},
      {"READONLY", "it is a replica: name the address of its primary"},
      {"LOADING", "it loads its data from disk: wait for it"},
      {"MISCONF", "it cannot save its data: look into its log"},
      {"WRONGTYPE", "the key holds something else: DEL it, and write it with HSET"},
  };
  for (const auto& one : known) {
    if (startsWith(words, one.code)) return fmt::format("; {}", one.text);
  }
  return "";
}

}  // namespace

struct RedisConnection::Context {
  explicit Context(redisContext* context) : handle(context) {}
  ~Context() {
    if (handle) redisFree(handle);
  }
  redisContext* const handle;
};

struct RedisConnection::Reply {
  struct Free {
    void operator()(redisReply* reply) const { freeReplyObject(reply); }
  };
  std::unique_ptr<redisReply, Free> handle;

  std::string_view text() const {
    return handle->str ? std::string_view(handle->str, handle->len) : std::string_view();
  }
  bool isError() const { return handle->type == REDIS_REPLY_ERROR; }
};

RedisConnection::RedisConnection(const RedisAddress& address, std::chrono::milliseconds patience)
    : address_(address), patience_(patience) {
  connect(patience);
  logIn();
}

RedisConnection::~RedisConnection() = default;

void RedisConnection::connect(std::chrono::milliseconds patience) {
  const timeval time = timeOf(patience);
  context_ = std::make_unique<Context>(
      address_.socketPath.empty()
          ? redisConnectWithTimeout(address_.host.c_str(), address_.port, time)
          : redisConnectUnixWithTimeout(address_.socketPath.c_str(), time));
  redisContext* context = context_->handle;
  if (!context || context->err) {
    const std::string reason = context ? context->errstr : "out of memory";
    throw RedisAway("cannot connect: " + Vela::plainLine(reason, longestWords));
  }
  redisSetTimeout(context, time);
  fcntl(context->fd, F_SETFD, FD_CLOEXEC);
}

// Servers quote the words of a command that they do not know, the password among them: of the
// answer to AUTH the error's code alone is told.
void RedisConnection::logIn() {
  std::string password;
  try {
    password = redisPassword(address_);
  } catch (const AddressError& e) {
    throw RedisAway(e.what());
  }
  if (!password.empty()) {
    RedisCommand command{"AUTH", password};
    if (!address_.user.empty()) command.insert(command.begin() + 1, address_.user);
    send(command);
    const Reply reply = receive();
    const std::string_view code = reply.text().substr(0, reply.text().find(' '));
    if (reply.isError()) {
      throw RedisAway(
          fmt::format("it refuses user and password ({}): give the right ones in the address, in a "
                      "password-file or in ${}",
                      Vela::plainLine(code, 20), passwordVariable));
    }
  }
  try {
    if (address_.database != 0) run({"SELECT", std::to_string(address_.database)});
  } catch (const RedisRefusal& e) {
    throw RedisAway(e.what());
  }
}

void RedisConnection::giveUpLate() {
  throw RedisAway(
      fmt::format("it does not answer within {} s", static_cast<double>(patience_.count()) / 1000));
}

// hiredis names a time-out by the errno of a socket that is not to block.
void RedisConnection::giveUp() {
  const redisContext& context = *context_->handle;
  const bool isTimeOut = context.err == REDIS_ERR_IO &&
                         (errno == EAGAIN || errno == EWOULDBLOCK || errno == ETIMEDOUT);
  if (isTimeOut) giveUpLate();
  throw RedisAway("the connection broke: " + Vela::plainLine(context.errstr, longestWords));
}

void RedisConnection::send(const RedisCommand& command) {
  std::vector<const char*> words;
  std::vector<size_t> sizes;
  size_t bytes = 0;
  for (const std::string& word : command) {
    words.push_back(word.data());
    sizes.push_back(word.size());
    bytes += word.size();
  }
  const int done = redisAppendCommandArgv(context_->handle, static_cast<int>(words.size()),
                                          words.data(), sizes.data());
  if (done != REDIS_OK) giveUp();
  flush(bytes);
}

void RedisConnection::flush(size_t bytes) {
  const auto end = Clock::now() + patience_ + transferTime(bytes);
  int done = 0;
  while (!done) {
    errno = 0;
    if (redisBufferWrite(context_->handle, &done) != REDIS_OK) giveUp();
    if (!done && Clock::now() > end) giveUpLate();
  }
}

// Not with redisGetReply(), which takes replies of any size, and whose time-out begins again with
// each byte that comes.
RedisConnection::Reply RedisConnection::receive() {
  const auto begin = Clock::now();
  size_t bytes = 0;
  while (true) {
    void* reply = nullptr;
    errno = 0;
    if (redisGetReplyFromReader(context_->handle, &reply) != REDIS_OK) giveUp();
    if (reply) return Reply{decltype(Reply::handle)(static_cast<redisReply*>(reply))};
    if (bytes > mostReplyBytes) throw ReplyTooLarge();
    bytes += readMore(begin + patience_ + transferTime(bytes));
  }
}

// Returns the bytes that came. Troubles of the reader are those of the next look for a reply.
size_t RedisConnection::readMore(Clock::time_point end) {
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
  pollfd arrival{context_->handle->fd, POLLIN, 0};
  if (rest.count() <= 0 || poll(&arrival, 1, static_cast<int>(rest.count())) == 0) giveUpLate();
  char block[16384];
  const ssize_t size = recv(arrival.fd, block, sizeof block, MSG_DONTWAIT);
  if (size > 0) {
    redisReaderFeed(context_->handle->reader, block, size);
    return size;
  }
  if (size == 0) throw RedisAway("the connection broke: the server closed it");
  if (errno == EAGAIN || errno == EINTR) return 0;
  throw RedisAway(fmt::format("the connection broke: {}", strerror(errno)));
}

RedisConnection::Reply RedisConnection::ask(const RedisCommand& command) {
  send(command);
  Reply reply = receive();
  if (!reply.isError()) return reply;
  // A password may have come, or changed: a new connection tries it.
  const std::string trouble =
      fmt::format("it refuses {}{}: {}{}", command.front(),
                  command.size() > 1 && command.front() != "SELECT" ? " of " + command[1] : "",
                  Vela::plainLine(reply.text(), longestWords), remedy(reply.text()));
  if (startsWith(reply.text(), "NOAUTH")) throw RedisAway(trouble);
  throw RedisRefusal(trouble);
}

void RedisConnection::run(const RedisCommand& command) { ask(command); }

void RedisConnection::runTogether(const std::vector<RedisCommand>& commands) {
  if (commands.size() == 1) return run(commands.front());
  run({"MULTI"});
  std::string trouble;
  for (const RedisCommand& command : commands) {
    try {
      run(command);
    } catch (const RedisRefusal& e) {
      if (trouble.empty()) trouble = e.what();
    }
  }
  if (!trouble.empty()) {
    run({"DISCARD"});
    throw RedisRefusal(trouble);
  }
  const Reply done = ask({"EXEC"});
  for (size_t i = 0; done.handle->type == REDIS_REPLY_ARRAY && i < done.handle->elements; ++i) {
    const redisReply& one = *done.handle->element[i];
    if (one.type != REDIS_REPLY_ERROR) continue;
    throw RedisRefusal(fmt::format("it refuses {}: {}{}", commands[i].front(),
                                   Vela::plainLine({one.str, one.len}, longestWords),
                                   remedy({one.str, one.len})));
  }
}

RedisHash RedisConnection::hash(const std::string& key) try {
  const Reply reply = ask({"HGETALL", key});
  RedisHash fields;
  size_t bytes = 0;
  const redisReply& array = *reply.handle;
  for (size_t i = 0; array.type == REDIS_REPLY_ARRAY && i + 1 < array.elements; i += 2) {
    const redisReply& field = *array.element[i];
    const redisReply& value = *array.element[i + 1];
    if (field.type != REDIS_REPLY_STRING || value.type != REDIS_REPLY_STRING) continue;
    bytes += field.len + value.len;
    if (bytes > mostHashBytes) throw hashTooLarge(key);
    fields.emplace(std::string(field.str, field.len), std::string(value.str, value.len));
  }
  return fields;
} catch (const ReplyTooLarge&) {
  connect(patience_);
  logIn();
  throw hashTooLarge(key);
}

long long RedisConnection::hashSize(const std::string& key) {
  const Reply reply = ask({"HLEN", key});
  return reply.handle->type == REDIS_REPLY_INTEGER ? reply.handle->integer : 0;
}

std::string RedisConnection::text(const std::string& key) {
  return std::string(ask({"GET", key}).text());
}

}  // namespace Orrery
