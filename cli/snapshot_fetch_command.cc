// pkgdlv snapshot fetch: fetches a package's snapshot from a snapshot URL or
// a source folder, as the engine does, and writes snapshot.xml and
// snapdata.xml into a folder.
#include <filesystem>
#include <iostream>
#include <string>

#include "cli/command_registry.h"
#include "cli/source_location.h"
#include "snapshot/snapshot.h"
#include "transport/package_download.h"
#include "util/atomic_file.h"
#include "util/error.h"
#include "util/format.h"
#include "util/guid.h"

namespace fs = std::filesystem;

namespace pkgdlv::cli {
namespace {

struct FetchArgs {
  std::string url;
  std::string dir;
  std::string package;
  std::string resource;
  int32_t version = 0;
  std::string out = ".";
  std::string user;
  std::string passwordBase64;
};

void Fetch(const FetchArgs& args, Context& context) {
  std::optional<Guid> id = Guid::Parse(args.package);
  if (!id) throw CommandFailure{"'" + args.package + "' is not a package identifier"};
  if (args.url.empty() == args.dir.empty()) throw CommandFailure{"give exactly one of --url and --dir"};
  SnapshotQuery query;
  query.packageId = *id;
  query.resource = args.resource;
  query.version = args.version;
  query.snapshotUrl = StoredSource(args.url);
  query.sourceDirectory = StoredSource(args.dir);
  query.user = args.user;
  query.encryptedPassword = args.passwordBase64;
  query.securityDataOptional = true;

  AgentServices& services = context.services();
  PackageDownload download(services);
  Snapshot snapshot(services.log);
  const fs::path folder = fs::absolute(args.out);
  snapshot.path = folder.string();
  if (!download.DownloadSnapshot(query, snapshot)) {
    throw CommandFailure{Format("%ls (0x%08X)", download.LastDescription(), download.LastResult())};
  }
  fs::create_directories(folder);
  const fs::path snapshotFile = folder / kSnapshotFileName;
  // A snapshot read from a document is kept byte for byte (its signature
  // covers those bytes); one built from a folder listing is composed here.
  if (snapshot.signedData.empty()) WriteFileAtomically(snapshotFile, snapshot.ComposeDocumentFile());
  if (!snapshot.SaveSecurityData(snapshotFile)) throw CommandFailure{"cannot write into '" + folder.string() + "'"};
  size_t files = 0;
  for (const SnapshotEntry& entry : snapshot.entries) files += entry.name.empty() ? 0 : 1;
  std::cout << Format("%ls: %u files, %ls\n", snapshotFile.string(), files,
                      snapshot.signature.empty() ? "unsigned" : "signed");
}

void Install(CLI::App& app, Context& context) {
  CLI::App* snapshot = app.get_subcommand("snapshot");
  auto args = std::make_shared<FetchArgs>();
  CLI::App* f = snapshot->add_subcommand("fetch", "Fetch a package's snapshot as the engine does");
  auto* url = f->add_option("--url", args->url, "Snapshot URL (http, https or file:), or the snapshot file's path");
  auto* dir = f->add_option("--dir", args->dir,
                            "Source folder holding the package: a path (absolute or relative), a file: URL, "
                            "a UNC path or an http(s) URL");
  url->excludes(dir);
  f->add_option("--package", args->package, "Package identifier, {GUID}")->required();
  f->add_option("--version", args->version, "Package version");
  f->add_option("--resource", args->resource, "The agent's resource identifier (for a dynamic snapshot page)");
  f->add_option("-o,--out", args->out, "Folder to write snapshot.xml and snapdata.xml into");
  auto* user = f->add_option("--user", args->user, "User name for the source");
  f->add_option("--password-b64", args->passwordBase64, "The source password, as the agent stores it (Base64)")
      ->needs(user);
  f->callback([args, &context] { Fetch(*args, context); });
}

const CommandRegistration registration(61, Install);

}  // namespace
}  // namespace pkgdlv::cli
