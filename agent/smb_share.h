// File shares read through libsmbclient, for the network transport's
// "\\host\share\path" locations (which reach here as "smb://host/share/path",
// components percent-encoded, see transport/location.h).
//
// Reads byte ranges and whole files in pieces of at most kMaxReadBytes, so an
// abort is noticed between two pieces, and lists folders recursively with the
// same safety rules as a local listing (agent/directory_listing.h).
//
// Port: the servers' SMB port is the standard one (445, then 139) unless the
// environment variable PKGDLV_SMB_PORT holds a number from 1 to 65535, read
// when the object is made (PortFromEnvironment). A UNC path has no place for
// a port, so a share on another port (a test server, a forwarded tunnel) is
// reached this way.
//
// Credentials: a user name "DOMAIN\user" sends the domain as the logon's
// workgroup; any other name is sent as it stands; an empty name is an
// anonymous (guest) session. The object keeps its own copy of the password, wipes it
// when it is replaced and when the object goes, and never logs it. With a
// user name given, a refused logon fails with 0x80070005; it does not fall
// back to an anonymous session.
//
// Failures are thrown as Error with the codes of MapShareErrno below.
//
// Threads: one object per transport, called from one thread at a time; the
// abort check it was given may turn true from any thread. libsmbclient keeps
// process-wide state, so calls into it from all objects are serialised by one
// lock, taken for each call (one read of at most 64 KiB), never across a
// whole transfer.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <pkgdlv/result_codes.h>

#include "agent/network_transport.h"

namespace pkgdlv {

// The result code for an errno value set by libsmbclient:
//   ENOENT (no such file, share or server path)     0x80070002 file not found
//   ENOTDIR                                          0x80070003 path not found
//   EACCES, EPERM (logon refused, no right to read)  0x80070005 access denied
//   EISDIR (a folder opened as a file)               0x80070005 access denied
//   ECONNREFUSED                                     0x800704C9 connection refused
//   ETIMEDOUT                                        0x800705B4 time-out
//   EHOSTUNREACH, ENETUNREACH, ENETDOWN, EHOSTDOWN   0x800C0004 cannot connect
//   EINVAL (a malformed location)                    0x80070057 invalid argument
//   ECANCELED                                        0x800704C7 cancelled
//   anything else (reset, short answer, no memory)   0x800C0008 download failed
// The caller refines ENOENT to 0x80070003 when the file's folder is missing.
Result MapShareErrno(int error);

class SmbShare {
 public:
  using Sink = std::function<void(std::span<const uint8_t>)>;
  using AbortCheck = std::function<bool()>;

  static constexpr size_t kMaxReadBytes = 64 * 1024;
  static constexpr const char* kPortVariable = "PKGDLV_SMB_PORT";
  // Folders nested deeper than this (or a listing larger than kMaxEntries)
  // fail the listing: a server that follows a link back to a parent folder
  // would otherwise show an endless tree.
  static constexpr int kMaxDepth = 64;
  static constexpr size_t kMaxEntries = 1'000'000;

  // The port from PKGDLV_SMB_PORT; 0 (the standard ports) when it is unset
  // or not a number from 1 to 65535.
  static uint16_t PortFromEnvironment();

  // aborted is polled between reads and between folders; port 0 is the
  // standard ports. Throws Error 0x80004005 when libsmbclient cannot make a
  // context.
  SmbShare(AbortCheck aborted, uint16_t port);
  ~SmbShare();
  SmbShare(const SmbShare&) = delete;
  SmbShare& operator=(const SmbShare&) = delete;

  // Credentials for the next calls; an unchanged pair keeps the open
  // connections, a new one closes them so the next call logs on again.
  void SetCredentials(std::string_view user, std::string_view password);
  // Time-out of one request to the server (connect, logon, one read).
  void SetTimeout(uint32_t timeout_ms);

  // Bytes [first, first + length) of the file at url, handed to sink in
  // pieces of at most kMaxReadBytes; returns the count, fewer than length
  // when the file ends first. An exception from sink ends the read and is
  // rethrown; an abort throws 0x800704C7.
  uint64_t ReadRange(const std::string& url, uint64_t first, uint64_t length, const Sink& sink);

  // The whole file; a file longer than max_bytes fails with 0x800700DF
  // before more than max_bytes were handed over.
  uint64_t ReadFile(const std::string& url, uint64_t max_bytes, const Sink& sink);

  // The folder at url, as DirectoryEntry items (relative paths joined with
  // "\"): unsafe names, reparse points (links) and a folder that is one of
  // its own parents are left out. A missing folder fails with 0x80070003.
  std::vector<DirectoryEntry> List(const std::string& url, bool recursive);

 private:
  class Context;
  std::unique_ptr<Context> context_;
};

}  // namespace pkgdlv
