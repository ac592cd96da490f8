// Writing the snapshot document.
//
// Each folder element needs its direct files, its direct subfolders (in
// ascending case-insensitive path order) and the total size of everything
// below it. One pass over the entries gathers all three for every folder, so
// composing stays linear in the number of entries however many folders there
// are.
#include <map>
#include <set>

#include "snapshot/snapshot.h"
#include "util/base64.h"
#include "util/strings.h"
#include "util/xml.h"

namespace pkgdlv {

namespace {

std::string_view ParentOf(std::string_view folderPath) {
  size_t cut = folderPath.rfind('\\');
  return cut == std::string_view::npos ? std::string_view() : folderPath.substr(0, cut);
}

std::string_view LastComponent(std::string_view folderPath) {
  size_t cut = folderPath.rfind('\\');
  return cut == std::string_view::npos ? folderPath : folderPath.substr(cut + 1);
}

}  // namespace

class SnapshotComposer {
 public:
  SnapshotComposer(const Snapshot& snapshot, BlockHashSource& hashes) : snapshot_(snapshot), hashes_(hashes) {
    Index();
  }

  std::string Compose() {
    xml::Writer writer(xml::Writer::Options{.declaration = false, .indent = "  ", .newline = "\n"});
    writer.StartElement("Snapshot")
        .Attribute("id", snapshot_.GetIdText())
        .Attribute("blockSize", std::to_string(snapshot_.blockSize))
        .Attribute("path", snapshot_.path)
        .Attribute("time", FormatDocumentTime(snapshot_.time, DateForm::kIsoT))
        .Attribute("version", std::to_string(snapshot_.version));
    ComposeFolder(writer, std::string());
    writer.EndElement();
    return writer.Finish();
  }

 private:
  struct Folder {
    std::vector<const SnapshotEntry*> files;            // direct files, in entry order
    std::set<std::string_view, LessNoCase> subfolders;  // direct subfolders by path
    uint64_t totalSize = 0;
    bool unknownSize = false;
  };

  void Index() {
    for (const SnapshotEntry& e : snapshot_.entries) {
      if (e.IsFolder()) {
        folders_[e.folder];
        folders_[std::string(ParentOf(e.folder))].subfolders.insert(e.folder);
        continue;
      }
      folders_[e.folder].files.push_back(&e);
      // The size counts in the file's own folder and in every folder above it.
      std::string_view ancestor = e.folder;
      while (true) {
        Folder& folder = folders_[std::string(ancestor)];
        if (e.size < 0) {
          folder.unknownSize = true;
        } else {
          folder.totalSize += static_cast<uint64_t>(e.size);
        }
        if (ancestor.empty()) break;
        ancestor = ParentOf(ancestor);
      }
    }
  }

  void ComposeFolder(xml::Writer& writer, const std::string& folderPath) {
    static const Folder kEmpty;
    auto found = folders_.find(folderPath);
    const Folder& folder = found != folders_.end() ? found->second : kEmpty;

    if (folderPath.empty()) {
      writer.StartElement("Root");
    } else {
      writer.StartElement("Folder").Attribute("name", LastComponent(folderPath));
    }
    writer.Attribute("size", std::to_string(folder.unknownSize ? 0 : folder.totalSize))
        .Attribute("files", std::to_string(folder.files.size()))
        .Attribute("folders", std::to_string(folder.subfolders.size()));
    for (const SnapshotEntry* file : folder.files) ComposeFile(writer, *file);
    for (std::string_view subfolder : folder.subfolders) ComposeFolder(writer, std::string(subfolder));
    writer.EndElement();
  }

  void ComposeFile(xml::Writer& writer, const SnapshotEntry& file) {
    writer.StartElement("File").Attribute("name", file.name);
    if (file.size != -1) writer.Attribute("size", std::to_string(file.size));
    if (file.lastModified != 0) {
      writer.Attribute("lastModifiedTime", FormatDocumentTime(file.lastModified, DateForm::kSpaced));
    }
    if (!file.fileHash.empty()) writer.Attribute("fileHash", file.fileHash);

    std::string relativePath = file.RelativePath();
    std::string storeKey = HashStoreKey(snapshot_.GetIdText(), relativePath);
    hashBuffer_.clear();
    switch (hashes_.Read(snapshot_, file, storeKey, hashBuffer_)) {
      case BlockHashSource::Lookup::kFound:
        writer.Attribute("blockHash", Base64Encode(hashBuffer_));
        break;
      case BlockHashSource::Lookup::kReadFailed:
        snapshot_.log().Log(loglevel::kWarning, kSnapshotLogComponent,
                            "Failed to read hash for file '%ls' from Secure Storage '%ls' while composing the "
                            "snapshot XML",
                            FullPath(relativePath), storeKey);
        break;
      case BlockHashSource::Lookup::kNone:
        break;
    }
    writer.EndElement();
  }

  // The file's path on disk, for log lines.
  std::string FullPath(const std::string& relativePath) const {
    std::string native = relativePath;
    for (char& c : native) {
      if (c == '\\') c = '/';
    }
    return snapshot_.path.empty() ? native : snapshot_.path + "/" + native;
  }

  const Snapshot& snapshot_;
  BlockHashSource& hashes_;
  std::map<std::string, Folder, LessNoCase> folders_;
  std::vector<uint8_t> hashBuffer_;
};

std::string Snapshot::ComposeXml(BlockHashSource* source) const {
  EntryBlockHashes ownHashes;
  SnapshotComposer composer(*this, source ? *source : ownHashes);
  return composer.Compose();
}

std::string Snapshot::ComposeDocumentFile(BlockHashSource* source) const {
  std::string file = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  file += ComposeXml(source);
  file += '\n';
  return file;
}

}  // namespace pkgdlv
