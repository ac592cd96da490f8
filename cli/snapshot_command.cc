// pkgdlv snapshot create|verify|show: the publisher's side of snapshots and a
// look inside them. Needs no agent settings: the crypto service is used
// directly, and the component's warnings go to standard error.
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/crypto.h"
#include "cli/command_registry.h"
#include "snapshot/snapshot.h"
#include "snapshot/snapshot_builder.h"
#include "util/atomic_file.h"
#include "util/base64.h"
#include "util/display_text.h"
#include "util/error.h"
#include "util/file_reader.h"
#include "util/filetime.h"
#include "util/guid.h"
#include "util/strings.h"

namespace fs = std::filesystem;

namespace pkgdlv::cli {
namespace {

// Errors, warnings and information lines of the component, one per line on
// standard error, so that a user sees why a document was refused.
class ConsoleLogger final : public Logger {
 public:
  bool IsEnabled(uint32_t level) override {
    return (level & loglevel::kSilent) == 0 && EffectiveSeverity(level) <= loglevel::kInfo;
  }
  void Write(uint32_t level, std::string_view component, std::string_view message) noexcept override {
    std::cerr << SeverityTag(EffectiveSeverity(level)) << ' ' << component << ": " << EscapeForDisplay(message)
              << '\n';
  }
};

std::string ReadText(const fs::path& path) {
  std::vector<uint8_t> bytes = ReadFileCapped(path);
  return std::string(bytes.begin(), bytes.end());
}

Snapshot LoadSnapshotFile(const fs::path& path, std::shared_ptr<Logger> log) {
  Snapshot snapshot(std::move(log));
  if (!snapshot.LoadXml(ReadText(path))) throw CommandFailure{"'" + path.string() + "' is not a valid snapshot"};
  return snapshot;
}

// The key given to verify: Base64 of a DER SubjectPublicKeyInfo, or a PEM
// file holding a public key or a private key (whose public half is used).
std::vector<uint8_t> PublicKeyFromArgument(const std::string& key, Crypto& crypto) {
  std::string base64 = key;
  std::error_code ec;
  if (fs::is_regular_file(key, ec)) {
    std::string text = ReadText(key);
    if (text.find("PRIVATE KEY-----") != std::string::npos) {
      WipeString(text);
      base64 = crypto.PublicKeyBase64FromPrivateKey(key);
    } else if (size_t begin = text.find("-----BEGIN PUBLIC KEY-----"); begin != std::string::npos) {
      size_t bodyStart = text.find('\n', begin);
      size_t end = text.find("-----END PUBLIC KEY-----");
      if (bodyStart == std::string::npos || end == std::string::npos || end < bodyStart) {
        throw CommandFailure{"'" + key + "' is not a PEM public key"};
      }
      base64 = text.substr(bodyStart, end - bodyStart);
    } else {
      base64 = text;
    }
  }
  std::string compact;
  for (char c : base64) {
    if (c != '\n' && c != '\r' && c != ' ' && c != '\t') compact += c;
  }
  std::optional<std::vector<uint8_t>> der = Base64Decode(compact);
  if (!der || der->empty()) throw CommandFailure{"the key is neither Base64 text nor a PEM key file"};
  return *der;
}

struct CreateArgs {
  std::string folder;
  std::string id;
  uint32_t version = 0;
  uint32_t blockSize = kDefaultBlockSize;
  std::string signKey;
  std::string out;
  bool printKey = false;
};

void Create(const CreateArgs& args) {
  std::optional<Guid> id = Guid::Parse(args.id, /*allow_bare=*/true);
  if (!id) throw CommandFailure{"--id: '" + args.id + "' is not a GUID"};
  if (args.printKey && args.signKey.empty()) throw CommandFailure{"--print-key needs --sign-key"};
  auto log = std::make_shared<ConsoleLogger>();
  std::shared_ptr<Crypto> crypto = NewOpenSslCrypto();

  fs::path folder = fs::absolute(args.folder).lexically_normal();
  fs::path out = args.out.empty() ? folder : fs::absolute(args.out).lexically_normal();
  fs::create_directories(out);
  fs::path snapshotPath = out / kSnapshotFileName;

  SnapshotBuildOptions options;
  options.blockSize = args.blockSize;
  options.log = log.get();
  options.excludedFiles = {snapshotPath, out / kSecurityDataFileName, out / "package.xml"};
  Snapshot snapshot(log);
  BuildSnapshotFromFolder(folder, options, snapshot);
  snapshot.id = *id;
  snapshot.version = args.version;
  snapshot.time = SystemFileTimeNow();
  snapshot.path = folder.string();

  if (args.signKey.empty()) {
    WriteFileAtomically(snapshotPath, snapshot.ComposeDocumentFile());
  } else {
    if (!snapshot.SaveSnapshot(snapshotPath, *crypto, args.signKey)) throw CommandFailure{"cannot write the snapshot"};
    if (snapshot.signature.empty()) throw CommandFailure{"cannot sign the snapshot with '" + args.signKey + "'"};
  }

  size_t files = 0, folders = 0;
  uint64_t bytes = 0;
  for (const SnapshotEntry& e : snapshot.entries) {
    if (e.IsFolder()) {
      ++folders;
    } else {
      ++files;
      bytes += static_cast<uint64_t>(std::max<int64_t>(e.size, 0));
    }
  }
  std::cout << snapshotPath.string() << ": " << files << " files, " << folders << " folders, " << bytes << " bytes, "
            << snapshot.totalBlocks << " blocks" << (args.signKey.empty() ? "" : ", signed") << "\n";
  if (args.printKey) std::cout << crypto->PublicKeyBase64FromPrivateKey(args.signKey) << "\n";
}

struct VerifyArgs {
  std::string snapshot;
  std::string snapdata;
  std::string key;
};

void Verify(const VerifyArgs& args) {
  auto log = std::make_shared<ConsoleLogger>();
  std::shared_ptr<Crypto> crypto = NewOpenSslCrypto();
  fs::path snapshotPath = args.snapshot;
  fs::path snapdataPath = args.snapdata.empty() ? Snapshot::GetSecurityDataPath(snapshotPath) : fs::path(args.snapdata);
  std::vector<uint8_t> publicKey = PublicKeyFromArgument(args.key, *crypto);

  Snapshot snapshot(log);
  if (!snapshot.LoadXml(ReadText(snapdataPath), /*isSecurityData=*/true)) {
    throw CommandFailure{"signature not valid: '" + snapdataPath.string() + "' is not valid security data"};
  }
  snapshot.signedData = ReadFileCapped(snapshotPath);
  if (!snapshot.IsValidSignature(*crypto, publicKey)) {
    throw CommandFailure{"signature not valid for '" + snapshotPath.string() + "'"};
  }
  std::cout << "signature valid\n";
}

struct ShowArgs {
  std::string snapshot;
  bool json = false;
};

void Show(const ShowArgs& args) {
  auto log = std::make_shared<ConsoleLogger>();
  Snapshot snapshot = LoadSnapshotFile(args.snapshot, log);
  bool blockHashesComplete = snapshot.LoadBlockHashes();

  nlohmann::json files = nlohmann::json::array();
  nlohmann::json folders = nlohmann::json::array();
  uint64_t totalSize = 0;
  bool sizeUnknown = false;
  for (const SnapshotEntry& e : snapshot.entries) {
    if (e.IsFolder()) {
      folders.push_back(e.folder);
      continue;
    }
    nlohmann::json file = {{"path", e.RelativePath()},
                           {"size", e.size},
                           {"blocks", e.BlockCount(snapshot.blockSize)},
                           {"firstBlock", e.firstBlock},
                           {"blockHashes", e.BlockHashCount()},
                           {"fileHash", e.fileHash}};
    file["lastModified"] = e.lastModified ? FormatDocumentTime(e.lastModified, DateForm::kIsoT) : "";
    files.push_back(std::move(file));
    if (e.size < 0) {
      sizeUnknown = true;
    } else {
      totalSize += static_cast<uint64_t>(e.size);
    }
  }
  nlohmann::json totals = {{"files", files.size()},
                           {"folders", folders.size()},
                           {"size", totalSize},
                           {"sizeUnknown", sizeUnknown},
                           {"blocks", snapshot.totalBlocks}};

  if (args.json) {
    nlohmann::json doc = {{"id", snapshot.GetIdText()},
                          {"version", snapshot.version},
                          {"time", FormatDocumentTime(snapshot.time, DateForm::kIsoT)},
                          {"blockSize", snapshot.blockSize},
                          {"declaredBlockSize", snapshot.declaredBlockSize},
                          {"blockHashesComplete", blockHashesComplete},
                          {"folders", folders},
                          {"files", files},
                          {"totals", totals}};
    std::cout << doc.dump(2) << "\n";
    return;
  }
  std::cout << "id:          " << snapshot.GetIdText() << "\n"
            << "version:     " << snapshot.version << "\n"
            << "time:        " << FormatDocumentTime(snapshot.time, DateForm::kIsoT) << "\n"
            << "block size:  " << snapshot.blockSize << (snapshot.declaredBlockSize ? "" : " (legacy default)") << "\n";
  for (const nlohmann::json& f : files) {
    std::cout << "  " << f["size"].get<int64_t>() << "\t" << f["blocks"].get<uint64_t>() << " blocks\t"
              << EscapeForDisplay(f["path"].get<std::string>()) << "\n";
  }
  std::cout << "total:       " << files.size() << " files, " << folders.size() << " folders, " << totalSize
            << (sizeUnknown ? "+ (some sizes unknown)" : "") << " bytes, " << snapshot.totalBlocks << " blocks"
            << (blockHashesComplete ? "" : ", block hashes incomplete") << "\n";
}

void Install(CLI::App& app, Context&) {
  CLI::App* snapshot = app.add_subcommand("snapshot", "Create, verify and show package snapshots");
  snapshot->require_subcommand(1);

  auto create = std::make_shared<CreateArgs>();
  CLI::App* c = snapshot->add_subcommand("create", "Write snapshot.xml (and, signed, snapdata.xml) for a folder");
  c->add_option("FOLDER", create->folder, "The package folder")->required()->check(CLI::ExistingDirectory);
  c->add_option("--id", create->id, "Package identifier (GUID)")->required();
  c->add_option("--version", create->version, "Package version")->required();
  c->add_option("--block-size", create->blockSize, "Hash block size in bytes")
      ->check(CLI::Range(1u, 0x7FFFFFFFu))
      ->default_val(kDefaultBlockSize);
  c->add_option("--sign-key", create->signKey, "PEM private key that signs the snapshot");
  c->add_option("--out", create->out, "Folder for the documents (default: the package folder)");
  c->add_flag("--print-key", create->printKey, "Print the Base64 public key of --sign-key");
  c->callback([create] { Create(*create); });

  auto verify = std::make_shared<VerifyArgs>();
  CLI::App* v = snapshot->add_subcommand("verify", "Check a snapshot's signature");
  v->add_option("SNAPSHOT", verify->snapshot, "snapshot.xml")->required()->check(CLI::ExistingFile);
  v->add_option("--snapdata", verify->snapdata, "Security data (default: snapdata.xml beside the snapshot)");
  v->add_option("--key", verify->key, "Base64 public key, or a PEM public or private key file")->required();
  v->callback([verify] { Verify(*verify); });

  auto show = std::make_shared<ShowArgs>();
  CLI::App* s = snapshot->add_subcommand("show", "Print a snapshot's contents");
  s->add_option("SNAPSHOT", show->snapshot, "snapshot.xml")->required()->check(CLI::ExistingFile);
  s->add_flag("--json", show->json, "Print a JSON object");
  s->callback([show] { Show(*show); });
}

const CommandRegistration registration(30, Install);

}  // namespace
}  // namespace pkgdlv::cli
