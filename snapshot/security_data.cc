// The security data document ("snapdata.xml"), the signature check and the
// writing of both snapshot files.
#include "agent/crypto.h"
#include "snapshot/snapshot.h"
#include "util/atomic_file.h"
#include "util/base64.h"
#include "util/error.h"
#include "util/xml.h"

namespace pkgdlv {

namespace {

constexpr std::string_view kXmlDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// Writes one document file; a failure is logged and reported as false.
bool WriteDocument(Logger& log, const std::filesystem::path& path, std::string_view text, bool withDeclaration) {
  try {
    if (withDeclaration) {
      std::string file;
      file.reserve(kXmlDeclaration.size() + text.size() + 1);
      file += kXmlDeclaration;
      file += text;
      file += '\n';
      WriteFileAtomically(path, file);
    } else {
      WriteFileAtomically(path, text);
    }
    return true;
  } catch (...) {
    Failure failure = CurrentFailure();
    log.Log(loglevel::kWarning, kSnapshotLogComponent, "%ls (0x%08X)", failure.description, failure.code);
    return false;
  }
}

}  // namespace

std::string Snapshot::ComposeSecurityData() const {
  xml::Writer writer(xml::Writer::Options{.declaration = false, .indent = "  ", .newline = "\n"});
  writer.StartElement("SnapshotData").Attribute("id", GetIdText()).Attribute("path", path);
  writer.StartElement("Security").Attribute("signature", signature).EndElement();
  writer.EndElement();
  return writer.Finish();
}

bool Snapshot::ParseSecurityData(const xml::Node& root) {
  if (!root || root.Name() != "SnapshotData") {
    log_->Log(loglevel::kWarning, kSnapshotLogComponent, "Invalid SnapshotData XML: Incorrect root element");
    return false;
  }
  std::optional<std::string> idText = root.Attribute("id");
  std::optional<std::string> pathText = root.Attribute("path");
  xml::Node security;
  for (const xml::Node& child : root.Children()) {
    if (child.Name() == "Security") {
      security = child;
      break;
    }
  }
  if (!security) {
    log_->Log(loglevel::kWarning, kSnapshotLogComponent, "Invalid SnapshotData XML: Missing Security element");
    return false;
  }
  std::optional<Guid> newId = idText ? Guid::Parse(*idText, /*allow_bare=*/true) : std::nullopt;
  if (newId && !newId->IsNull()) id = *newId;  // GetIdText follows id by itself
  if (pathText && !pathText->empty()) path = *pathText;
  signature = security.Attribute("signature").value_or(std::string());
  return true;
}

std::filesystem::path Snapshot::GetSecurityDataPath(const std::filesystem::path& snapshotPath) {
  return snapshotPath.parent_path() / kSecurityDataFileName;
}

bool Snapshot::SaveSecurityData(const std::filesystem::path& snapshotPath) {
  bool ok = WriteDocument(*log_, GetSecurityDataPath(snapshotPath), ComposeSecurityData(), true);
  if (!signedData.empty()) {
    std::string_view bytes(reinterpret_cast<const char*>(signedData.data()), signedData.size());
    ok = WriteDocument(*log_, snapshotPath, bytes, false) && ok;
  }
  return ok;
}

bool Snapshot::SaveSnapshot(const std::filesystem::path& snapshotPath, Crypto& crypto,
                            const std::filesystem::path& signingKeyPem) {
  bool ok = WriteDocument(*log_, snapshotPath, ComposeDocumentFile(), false);
  if (ok && !signingKeyPem.empty()) {
    try {
      std::vector<uint8_t> signatureBytes = crypto.SignFile(snapshotPath, signingKeyPem);
      std::vector<uint8_t> written = ReadWholeFile(snapshotPath);
      signature = Base64Encode(signatureBytes);
      signedData = std::move(written);
    } catch (...) {
      // Signing is the agent core's business; without it the snapshot stays unsigned.
      Failure failure = CurrentFailure();
      log_->Log(loglevel::kWarning, kSnapshotLogComponent, "%ls (0x%08X)", failure.description, failure.code);
    }
  }
  ok = WriteDocument(*log_, GetSecurityDataPath(snapshotPath), ComposeSecurityData(), true) && ok;
  return ok;
}

bool Snapshot::IsValidSignature(Crypto& crypto, std::span<const uint8_t> publicKeyDer) const {
  if (signature.empty()) {
    log_->Log(loglevel::kError, kSnapshotLogComponent,
              "IsValidSignature - the signature is empty, nothing to validate.");
    return false;
  }
  if (signedData.empty()) {
    log_->Log(loglevel::kError, kSnapshotLogComponent,
              "IsValidSignature - the raw data of the response is empty, nothing to validate.");
    return false;
  }
  std::optional<std::vector<uint8_t>> signatureBytes = Base64Decode(signature);
  if (!signatureBytes) {
    log_->Log(loglevel::kError, kSnapshotLogComponent, "IsValidSignature - failed to decode Base64 Data: '%s'",
              signature);
    return false;
  }
  try {
    return crypto.Verify(signedData, *signatureBytes, Base64Encode(publicKeyDer));
  } catch (...) {
    Failure failure = CurrentFailure();
    log_->Log(loglevel::kError, kSnapshotLogComponent, "IsValidSignature - %ls (0x%08X)", failure.description,
              failure.code);
    return false;
  }
}

}  // namespace pkgdlv
