// What the tree and the streaming XML reader's tests share: documents that a
// reader must survive, a local port that tells whether a reader tried to
// fetch anything, and UTF-16 encoding of test text.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace pkgdlv::testing {

// A listening socket on 127.0.0.1; a document can point its external
// references at url() and the test can then ask whether anything connected.
class ConnectionWatch {
 public:
  ConnectionWatch() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd_, 8) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    port_ = ntohs(address.sin_port);
  }
  ~ConnectionWatch() { ::close(fd_); }
  ConnectionWatch(const ConnectionWatch&) = delete;
  ConnectionWatch& operator=(const ConnectionWatch&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // Whether a connection is waiting to be accepted.
  bool Contacted() const {
    pollfd entry{fd_, POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0;
  }

 private:
  int fd_;
  uint16_t port_ = 0;
};

// UTF-8 text as UTF-16 with a byte order mark.
inline std::string ToUtf16(std::string_view utf8, bool big_endian) {
  std::string out;
  auto unit = [&](uint32_t u) {
    const char high = static_cast<char>(u >> 8), low = static_cast<char>(u & 0xFF);
    out += big_endian ? high : low;
    out += big_endian ? low : high;
  };
  unit(0xFEFF);
  for (size_t i = 0; i < utf8.size();) {
    const auto lead = static_cast<uint8_t>(utf8[i]);
    const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) code = code << 6 | (static_cast<uint8_t>(utf8[i + k]) & 0x3F);
    i += length;
    if (code >= 0x10000) {
      unit(0xD800 + ((code - 0x10000) >> 10));
      unit(0xDC00 + ((code - 0x10000) & 0x3FF));
    } else {
      unit(code);
    }
  }
  return out;
}

struct HostileXml {
  std::string name;
  std::string text;
  bool must_fail;  // false: reading may succeed, but must not leak anything
};

inline std::string Repeat(const std::string& piece, size_t count) {
  std::string out;
  out.reserve(piece.size() * count);
  for (size_t i = 0; i < count; ++i) out += piece;
  return out;
}

inline std::string BillionLaughs() {
  std::string text = "<?xml version=\"1.0\"?>\n<!DOCTYPE lolz [\n<!ENTITY lol0 \"lol\">\n";
  for (int i = 1; i <= 9; ++i) {
    text += "<!ENTITY lol" + std::to_string(i) + " \"" + Repeat("&lol" + std::to_string(i - 1) + ";", 10) + "\">\n";
  }
  return text + "]>\n<lolz a=\"&lol9;\">&lol9;</lolz>\n";
}

// One entity of 50,000 characters referred to 50,000 times: no nesting for
// a loop check to see, only a quadratic amount of text.
inline std::string QuadraticBlowup() {
  return "<!DOCTYPE q [<!ENTITY big \"" + std::string(50000, 'x') + "\">]><q>" + Repeat("&big;", 50000) + "</q>";
}

// External content is named by the caller's URL so that a test can watch a
// local port for a connection attempt.
inline std::vector<HostileXml> HostileDocuments(const std::string& url) {
  return {
      {"Empty", "", true},
      {"NotXml", "this is not XML", true},
      {"Truncated", "<Snapshot id=\"1\"><Root size=\"3\"><File name=\"a\" si", true},
      {"InvalidUtf8", "<a x=\"\xC3\x28\xFF\"/>", true},
      {"UnknownEncoding", "<?xml version=\"1.0\" encoding=\"x-no-such-encoding\"?><a/>", true},
      {"Utf16DeclaredButUtf8", "<?xml version=\"1.0\" encoding=\"UTF-16\"?><a x=\"\xC3\xA9\"/>", true},
      {"DeepNesting", Repeat("<a>", 100000) + Repeat("</a>", 100000), true},
      {"BillionLaughs", BillionLaughs(), true},
      {"QuadraticBlowup", QuadraticBlowup(), true},
      {"UndefinedEntity", "<a>&nowhere;</a>", true},
      // Past libxml2's 10,000,000-byte limit on one value: refused or read whole.
      {"HugeAttribute", "<a v=\"" + std::string(10 * 1024 * 1024, 'v') + "\"/>", false},
      {"ExternalEntity", "<!DOCTYPE a [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><a>&x;</a>", false},
      {"ExternalEntityInAttribute", "<!DOCTYPE a [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><a v=\"&x;\"/>", true},
      {"NetworkEntity", "<!DOCTYPE a [<!ENTITY x SYSTEM \"" + url + "/entity\">]><a>&x;</a>", false},
      {"NetworkDtd", "<!DOCTYPE a SYSTEM \"" + url + "/dtd\"><a>text</a>", false},
      {"NetworkParameterEntity", "<!DOCTYPE a [<!ENTITY % p SYSTEM \"" + url + "/p\"> %p;]><a/>", false},
      {"XInclude",
       "<a xmlns:xi=\"http://www.w3.org/2001/XInclude\"><xi:include href=\"file:///etc/passwd\" parse=\"text\"/></a>",
       false},
  };
}

}  // namespace pkgdlv::testing
