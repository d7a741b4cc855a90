#include "inspector/web.h"

#include <microhttpd.h>
#include <strings.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "common/listen.h"

namespace inspector {
namespace {

// Each connection has a thread. A browser opens up to six.
constexpr unsigned kMostConnections = 64;
constexpr unsigned kIdleSeconds = 60;
constexpr size_t kLongestBody = 65536;
constexpr size_t kStreamBlock = 65536;

constexpr std::pair<const char *, const char *> kHeaders[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
     "img-src data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
     "require-trusted-types-for 'script'; trusted-types 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

std::string_view header_of(MHD_Connection *connection, const char *name) {
  const char *value = ::MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value == nullptr ? std::string_view() : value;
}

// A browser leaves out the default port (RFC 9110, 4.2.3).
std::string with_port(std::string_view host) {
  const size_t colon = host.rfind(':');
  const bool has_port = colon != std::string_view::npos && host.find(']', colon) == host.npos;
  return std::string(host) + (has_port ? "" : ":80");
}

// "ADDRESS:PORT" of our end. Somebody's page can make a name lead there, but not another address.
std::string address_of(MHD_Connection *connection) {
  const MHD_ConnectionInfo *info =
      ::MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  if (info == nullptr) return {};
  constexpr std::string_view kMapped = "[::ffff:";
  std::string address = servers::local_address(info->connect_fd);
  // An IPv4 address on a socket of both families (RFC 4291, 2.5.5.2).
  if (address.starts_with(kMapped) && address.find('.') != std::string::npos) {
    address.erase(address.find(']'), 1).erase(0, kMapped.size());
  }
  return address;
}

// The time that it takes does not depend on where they differ.
bool same_secret(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < left.size(); ++i) {
    difference |= static_cast<unsigned char>(left[i] ^ right[i]);
  }
  return difference == 0;
}

Answer refusal(unsigned status, const char *why) {
  Answer answer;
  answer.status = status;
  answer.type = "text/plain; charset=utf-8";
  answer.body = why;
  return answer;
}

// Through this the HTTP library reads a stream.
struct Reading {
  std::unique_ptr<Stream> stream;
  std::string rest;

  static ssize_t read(void *reading, uint64_t, char *out, size_t most) {
    auto *self = static_cast<Reading *>(reading);
    try {
      if (self->rest.empty()) self->rest = self->stream->next();
    } catch (const std::exception &) {
      return MHD_CONTENT_READER_END_WITH_ERROR;
    }
    if (self->rest.empty()) return MHD_CONTENT_READER_END_OF_STREAM;
    const size_t size = self->rest.copy(out, most);
    self->rest.erase(0, size);
    return static_cast<ssize_t>(size);
  }
  static void free(void *reading) { delete static_cast<Reading *>(reading); }
};

MHD_Response *make_response(Answer answer) {
  if (answer.stream == nullptr) {
    return ::MHD_create_response_from_buffer(answer.body.size(), answer.body.data(),
                                             MHD_RESPMEM_MUST_COPY);
  }
  auto reading = std::make_unique<Reading>();
  reading->stream = std::move(answer.stream);
  MHD_Response *response = ::MHD_create_response_from_callback(
      MHD_SIZE_UNKNOWN, kStreamBlock, &Reading::read, reading.get(), &Reading::free);
  if (response != nullptr) (void)reading.release();
  return response;
}

MHD_Result reply(MHD_Connection *connection, Answer answer) {
  const unsigned status = answer.status;
  const std::string type = answer.type, file = answer.file;
  MHD_Response *response = make_response(std::move(answer));
  if (response == nullptr) return MHD_NO;
  for (const auto &[name, value] : kHeaders) ::MHD_add_response_header(response, name, value);
  ::MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type.c_str());
  if (!file.empty()) {
    ::MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_DISPOSITION,
                              ("attachment; filename=\"" + file + "\"").c_str());
  }
  if (status == MHD_HTTP_METHOD_NOT_ALLOWED) {
    ::MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  }
  const MHD_Result result = ::MHD_queue_response(connection, status, response);
  ::MHD_destroy_response(response);
  return result;
}

struct Exchange {
  std::string body;
  bool too_long = false;
};

}  // namespace

// What the HTTP library calls. No exception may pass through its frames.
struct WebCallbacks {
  static MHD_Result access(void *web, MHD_Connection *connection, const char *url,
                           const char *method, const char *, const char *upload,
                           size_t *upload_size, void **state) {
    try {
      if (*state == nullptr) {
        *state = new Exchange;
        return MHD_YES;
      }
      auto *exchange = static_cast<Exchange *>(*state);
      if (*upload_size > 0) {
        exchange->too_long |= exchange->body.size() + *upload_size > kLongestBody;
        if (!exchange->too_long) exchange->body.append(upload, *upload_size);
        *upload_size = 0;
        return MHD_YES;
      }
      return reply(connection, answer(static_cast<Web *>(web), connection, url, method, exchange));
    } catch (const std::exception &) {
      return MHD_NO;
    }
  }

  static void completed(void *, MHD_Connection *, void **state, MHD_RequestTerminationCode) {
    delete static_cast<Exchange *>(std::exchange(*state, nullptr));
  }

  static MHD_Result argument(void *arguments, MHD_ValueKind, const char *name, const char *value) {
    auto *map = static_cast<std::map<std::string, std::string> *>(arguments);
    (*map)[name] = value == nullptr ? "" : value;
    return MHD_YES;
  }

  static bool is_served(const Web &web, MHD_Connection *connection, std::string_view host) {
    const auto is = [whole = with_port(host)](const std::string &served) {
      return ::strcasecmp(served.c_str(), whole.c_str()) == 0;
    };
    return !host.empty() &&
           (is(address_of(connection)) || std::any_of(web.hosts_.begin(), web.hosts_.end(), is));
  }

  static Answer answer(Web *web, MHD_Connection *connection, std::string_view url,
                       std::string_view method, Exchange *exchange) {
    const std::string_view host = header_of(connection, MHD_HTTP_HEADER_HOST);
    if (!is_served(*web, connection, host)) {
      return refusal(MHD_HTTP_MISDIRECTED_REQUEST, "this is another host\n");
    }
    const size_t end = std::min(url.find('/', 1), url.size());
    if (url.empty() || !same_secret(url.substr(1, end - 1), web->token_) || end == url.size()) {
      return refusal(MHD_HTTP_FORBIDDEN, "open the address that msginspect printed\n");
    }
    if (exchange->too_long) return refusal(MHD_HTTP_CONTENT_TOO_LARGE, "the body is too long\n");
    Request request;
    request.method = method == "HEAD" ? "GET" : method;
    request.path = url.substr(end + 1);
    request.from_own_page = header_of(connection, "Origin") == "http://" + std::string(host);
    request.body = std::move(exchange->body);
    ::MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, &argument, &request.arguments);
    try {
      Answer answer = web->handler_(request);
      // Nobody reads the stream of a HEAD request, so nothing would end it.
      if (method == "HEAD") answer.stream.reset();
      return answer;
    } catch (const std::exception &error) {
      return refusal(MHD_HTTP_INTERNAL_SERVER_ERROR, error.what());
    }
  }
};

Web::Web(servers::UniqueFd listener, std::string token, std::vector<std::string> hosts,
         Handler handler)
    : token_(std::move(token)), hosts_(std::move(hosts)), handler_(std::move(handler)) {
  // A thread each: an answer may wait for the message server, and a slow reader delays only itself.
  daemon_ = ::MHD_start_daemon(
      MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL | MHD_USE_ITC,
      0, nullptr, nullptr, &WebCallbacks::access, this, MHD_OPTION_LISTEN_SOCKET, listener.get(),
      MHD_OPTION_CONNECTION_LIMIT, kMostConnections, MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds,
      MHD_OPTION_NOTIFY_COMPLETED, &WebCallbacks::completed, nullptr, MHD_OPTION_END);
  if (daemon_ == nullptr) throw std::runtime_error("the HTTP server cannot be started");
  [[maybe_unused]] const int theirs = listener.release();
}

Web::~Web() {
  ::MHD_stop_daemon(daemon_);
}

}  // namespace inspector
