// Result codes of the package delivery component.
//
// Codes are 32-bit HRESULT-style values. Win32 error numbers reported by the
// transport (cancelled, and a few others) are turned into HRESULTs with
// FromWin32 where a result code is needed.
#pragma once

#include <cstdint>

namespace pkgdlv {

using Result = uint32_t;

constexpr bool Succeeded(Result r) { return (r & 0x80000000u) == 0; }
constexpr bool Failed(Result r) { return !Succeeded(r); }
constexpr Result FromWin32(uint32_t code) { return code == 0 ? 0 : (0x80070000u | (code & 0xFFFFu)); }

namespace win32 {
constexpr uint32_t kFileNotFound = 2;
constexpr uint32_t kPathNotFound = 3;
constexpr uint32_t kAlreadyExists = 183;
constexpr uint32_t kInvalidData = 13;
constexpr uint32_t kCrc = 23;
constexpr uint32_t kDiskFull = 112;
constexpr uint32_t kCancelled = 1223;
constexpr uint32_t kNoMatch = 1169;
constexpr uint32_t kTimeout = 1460;
}  // namespace win32

namespace result {
constexpr Result kOk = 0x00000000;
constexpr Result kFalse = 0x00000001;
constexpr Result kAborted = 0x80004004;          // agent stopping or downloads suspended
constexpr Result kFail = 0x80004005;             // general failure
constexpr Result kInvalidPointer = 0x80004003;   // a missing agent object
constexpr Result kInvalidArg = 0x80070057;
constexpr Result kFileNotFound = 0x80070002;
constexpr Result kPathNotFound = 0x80070003;
constexpr Result kInvalidData = 0x8007000D;      // "Data is not compressed"
constexpr Result kCrcMismatch = 0x80070017;      // "Incorrect CRC for decompressed data"
constexpr Result kEndOfData = 0x80070026;        // Win32 38: a compressed frame cut short
constexpr Result kDiskFull = 0x80070070;
constexpr Result kNoMatch = 0x80070491;          // a snapshot file without block hashes
constexpr Result kCancelled = 0x800704C7;        // Win32 1223 as a result code
constexpr Result kConfigurationUnavailable = 0x80070FDF;
constexpr Result kServerErrorUnparsable = 0x8007203F;
constexpr Result kDecryptFailed = 0x80090005;
constexpr Result kSuspended = 0x80043006;
constexpr Result kServerBusy = 0x8004200C;
constexpr Result kServerBusyAlt = 0x80056007;
constexpr Result kServerNotReady = 0x8004200D;   // also: no site transfer slot free
constexpr Result kServerPaused = 0x8004200E;
constexpr Result kHttpNotFound = 0x80042D21;     // HTTP failure; status 404 tells "not found"
constexpr Result kPeerBlocksNotReady = 0x8FA101A0;
constexpr Result kPeerFilesNotReady = 0x8FA10194;

// Network transport failures (agent/transport_errors.cc maps every transfer
// failure onto one of these; HTTP statuses travel beside kHttpNotFound).
constexpr Result kAccessDenied = 0x80070005;       // Win32 5: a file or share refused us
constexpr Result kNotImplemented = 0x80004001;     // an operation the location's protocol cannot do
constexpr Result kResponseTooLarge = 0x800700DF;   // Win32 223: body over the caller's limit
constexpr Result kTransferTimeout = 0x800705B4;    // Win32 1460: connect time-out or stalled transfer
constexpr Result kConnectionRefused = 0x800704C9;  // Win32 1225
constexpr Result kCannotConnect = 0x800C0004;      // no connection (network down, unreachable)
constexpr Result kHostNotFound = 0x800C0005;       // the server's name does not resolve
constexpr Result kDownloadFailed = 0x800C0008;     // connection reset, truncated body, a wrong range answer
constexpr Result kInvalidProtocol = 0x800C000D;    // scheme other than http, https, file, smb
constexpr Result kRedirectFailed = 0x800C0014;     // too many redirects
constexpr Result kSecureChannelFailed = 0x800C0019;  // TLS handshake or certificate failure
constexpr Result kNullPointer = 0x80004003;        // a missing interface or service
}  // namespace result

}  // namespace pkgdlv
