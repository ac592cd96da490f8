#include "util/format.h"

#include <cstdio>

namespace pkgdlv {

uint64_t FormatArg::AsUnsigned() const {
  switch (kind_) {
    case Kind::kSigned: return static_cast<uint64_t>(signed_);
    case Kind::kFloat: return static_cast<uint64_t>(float_);
    case Kind::kText: return 0;
    default: return unsigned_;
  }
}

double FormatArg::AsFloat() const {
  switch (kind_) {
    case Kind::kSigned: return static_cast<double>(signed_);
    case Kind::kUnsigned:
    case Kind::kPointer: return static_cast<double>(unsigned_);
    case Kind::kFloat: return float_;
    default: return 0;
  }
}

namespace {

bool IsFlag(char c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// spec is the conversion without its final letters, which suffix supplies.
void AppendPrintf(std::string& out, std::string spec, std::string_view suffix, auto value) {
  spec.append(suffix);
  char buffer[128];
  int n = std::snprintf(buffer, sizeof buffer, spec.c_str(), value);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof buffer) {
    out.append(buffer, static_cast<size_t>(n));
    return;
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), spec.c_str(), value);
  big.resize(static_cast<size_t>(n));
  out += big;
}

// Pads a text as printf's %-10.3s would, without handing printf a view that
// may lack a terminating zero.
void AppendText(std::string& out, std::string_view text, bool left, int width, int precision) {
  if (precision >= 0 && static_cast<size_t>(precision) < text.size()) text = text.substr(0, precision);
  size_t pad = width > 0 && static_cast<size_t>(width) > text.size() ? width - text.size() : 0;
  if (!left) out.append(pad, ' ');
  out.append(text);
  if (left) out.append(pad, ' ');
}

}  // namespace

std::string FormatArgs(std::string_view format, std::span<const FormatArg> args) {
  std::string out;
  out.reserve(format.size() + 16 * args.size());
  size_t next_arg = 0;
  size_t i = 0;
  while (i < format.size()) {
    char c = format[i];
    if (c != '%') {
      out.push_back(c);
      ++i;
      continue;
    }
    if (i + 1 < format.size() && format[i + 1] == '%') {
      out.push_back('%');
      i += 2;
      continue;
    }
    // Parse %[flags][width][.precision][length]conversion.
    size_t start = i++;
    std::string flags;
    while (i < format.size() && IsFlag(format[i])) flags.push_back(format[i++]);
    int width = -1;
    if (i < format.size() && format[i] == '*') {
      width = next_arg < args.size() ? static_cast<int>(args[next_arg++].AsSigned()) : 0;
      ++i;
    } else if (i < format.size() && IsDigit(format[i])) {
      width = 0;
      while (i < format.size() && IsDigit(format[i])) width = width * 10 + (format[i++] - '0');
    }
    int precision = -1;
    if (i < format.size() && format[i] == '.') {
      ++i;
      precision = 0;
      if (i < format.size() && format[i] == '*') {
        precision = next_arg < args.size() ? static_cast<int>(args[next_arg++].AsSigned()) : 0;
        ++i;
      } else {
        while (i < format.size() && IsDigit(format[i])) precision = precision * 10 + (format[i++] - '0');
      }
    }
    bool wide64 = false;
    while (i < format.size()) {
      std::string_view rest = format.substr(i);
      if (rest.starts_with("I64")) { wide64 = true; i += 3; }
      else if (rest.starts_with("I32")) { i += 3; }
      else if (rest.starts_with("ll")) { wide64 = true; i += 2; }
      else if (rest[0] == 'l' || rest[0] == 'h' || rest[0] == 'z' || rest[0] == 'j' || rest[0] == 'L' || rest[0] == 'w') {
        if (rest[0] == 'z' || rest[0] == 'j') wide64 = true;
        ++i;
      } else break;
    }
    if (i >= format.size()) {  // a lone '%' at the end is printed as it stands
      out.append(format.substr(start));
      break;
    }
    char conv = format[i++];
    std::string spec(1, '%');
    spec.append(flags);
    if (width >= 0) spec.append(std::to_string(width));
    if (precision >= 0) {
      spec.push_back('.');
      spec.append(std::to_string(precision));
    }

    if (next_arg >= args.size()) {
      out += "(missing)";
      continue;
    }
    const FormatArg& arg = args[next_arg++];
    bool left = flags.find('-') != std::string::npos;
    switch (conv) {
      case 's':
      case 'S':
        if (arg.kind() == FormatArg::Kind::kText) {
          AppendText(out, arg.text(), left, width, precision);
        } else {
          AppendPrintf(out, spec, "lld", static_cast<long long>(arg.AsSigned()));
        }
        break;
      case 'c':
        if (arg.kind() == FormatArg::Kind::kText) {
          AppendText(out, arg.text().substr(0, 1), left, width, -1);
        } else {
          AppendPrintf(out, spec, "c", static_cast<int>(arg.AsSigned()));
        }
        break;
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        if (arg.kind() == FormatArg::Kind::kText) {
          AppendText(out, arg.text(), left, width, -1);
        } else if (conv == 'd' || conv == 'i') {
          long long v = wide64 ? static_cast<long long>(arg.AsSigned())
                               : static_cast<long long>(static_cast<int32_t>(arg.AsUnsigned()));
          AppendPrintf(out, spec, "lld", v);
        } else {
          unsigned long long v = wide64 ? arg.AsUnsigned() : static_cast<uint32_t>(arg.AsUnsigned());
          const char suffix[] = {'l', 'l', conv};
          AppendPrintf(out, spec, std::string_view(suffix, 3), v);
        }
        break;
      case 'f':
      case 'F':
      case 'g':
      case 'G':
      case 'e':
      case 'E':
        if (arg.kind() == FormatArg::Kind::kText) {
          AppendText(out, arg.text(), left, width, -1);
        } else {
          AppendPrintf(out, spec, std::string_view(&conv, 1), arg.AsFloat());
        }
        break;
      case 'p':
        AppendPrintf(out, spec, "llX", static_cast<unsigned long long>(arg.AsUnsigned()));
        break;
      default:  // unknown conversion: keep the text, drop the argument
        out.append(format.substr(start, i - start));
        break;
    }
  }
  return out;
}

}  // namespace pkgdlv
