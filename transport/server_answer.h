// The Quillon Server's answers: a good answer is an XML document whose root
// has no "number" attribute; an error report is a root with the error's
// number (hexadecimal) and, perhaps, its text.
//
// Pure functions; any thread may call them.
#pragma once

#include <functional>
#include <string_view>

#include <pkgdlv/result_codes.h>

namespace pkgdlv {

// Fails (throws Error) with the server error of a number and a text: the
// text when there is one; otherwise the component's text for the number
// ("WARNING: The server is currently busy" and so on; 1 becomes 0x80004005
// "Invalid response from server"; any other number "Server error").
[[noreturn]] void ThrowServerError(Result number, std::string_view text);

// Checks text as a server answer and returns normally for a good one.
// recordServerError is called (before the throw) when the answer counts
// against the server: no document element, or an error report. Throws
// Error: "Invalid XML returned by server" for empty text, "Invalid XML
// returned by server. Root of the document is not found." when no document
// element can be read (both 0x80004005), or the server error of a report.
void CheckServerAnswer(std::string_view text, const std::function<void()>& recordServerError);

// Fails like CheckServerAnswer when text is an error report, after calling
// recordServerError; any other text passes, empty or not XML included. For
// answers that say nothing beyond whether the server refused.
void CheckErrorReport(std::string_view text, const std::function<void()>& recordServerError);

// True for the codes of a busy, not ready or paused server, which start or
// prolong the back-off of package sources requests.
bool IsServerBusyCode(Result code);

}  // namespace pkgdlv
