#include "snapshot/snapshot_xml_parser.h"

#include <array>

#include "util/error.h"
#include "util/strings.h"

namespace pkgdlv {

namespace {

// Folder paths and file names of real packages fit this; longer ones still
// work, they only cost a reallocation.
constexpr size_t kPathCapacity = 520;

thread_local Result lastSnapshotError = result::kOk;

constexpr std::array<int8_t, 256> MakeBase64Table() {
  std::array<int8_t, 256> table{};
  for (auto& v : table) v = -1;
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
  return table;
}
constexpr std::array<int8_t, 256> kBase64Table = MakeBase64Table();

}  // namespace

Result LastSnapshotError() { return lastSnapshotError; }

bool MatchesSnapshotName(std::string_view documentName, std::string_view wanted) {
  return !documentName.empty() && StartsWithNoCase(wanted, documentName);
}

const char* DecodeBase64Into(std::string_view text, std::vector<uint8_t>& out) {
  if (text.size() % 4 != 0) return "the length is not a multiple of 4";
  size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  out.resize(text.size() / 4 * 3 - padding);
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  uint8_t* dest = out.data();
  const size_t fullQuads = text.size() / 4 - (padding != 0 ? 1 : 0);
  for (size_t q = 0; q < fullQuads; ++q, in += 4, dest += 3) {
    int a = kBase64Table[in[0]], b = kBase64Table[in[1]], c = kBase64Table[in[2]], d = kBase64Table[in[3]];
    if ((a | b | c | d) < 0) return "invalid character";
    uint32_t v = static_cast<uint32_t>(a) << 18 | static_cast<uint32_t>(b) << 12 | static_cast<uint32_t>(c) << 6 |
                 static_cast<uint32_t>(d);
    dest[0] = static_cast<uint8_t>(v >> 16);
    dest[1] = static_cast<uint8_t>(v >> 8);
    dest[2] = static_cast<uint8_t>(v);
  }
  if (padding == 0) return nullptr;
  int a = kBase64Table[in[0]], b = kBase64Table[in[1]];
  int c = padding == 1 ? kBase64Table[in[2]] : 0;
  if ((a | b | c) < 0) return "invalid character";
  uint32_t v = static_cast<uint32_t>(a) << 18 | static_cast<uint32_t>(b) << 12 | static_cast<uint32_t>(c) << 6;
  // The bits that padding discards must be zero, or two texts would decode alike.
  if ((padding == 2 && (v & 0xFFFF) != 0) || (padding == 1 && (v & 0xFF) != 0)) return "non-zero padding bits";
  dest[0] = static_cast<uint8_t>(v >> 16);
  if (padding == 1) dest[1] = static_cast<uint8_t>(v >> 8);
  return nullptr;
}

SnapshotXmlParser::SnapshotXmlParser(Snapshot& target) : target_(target) {
  folderPath_.reserve(kPathCapacity);
  fileName_.reserve(kPathCapacity);
}

xml::SAXAction SnapshotXmlParser::StartElement(std::string_view name, const xml::SAXAttributes& attributes) {
  if (MatchesSnapshotName(name, "Folder")) {
    mode_ = Mode::kFolder;
  } else if (MatchesSnapshotName(name, "File")) {
    mode_ = Mode::kFile;
  } else {
    mode_ = Mode::kOther;
    return xml::SAXAction::kContinue;
  }
  for (const xml::SAXAttribute& attribute : attributes) {
    if (Attribute(attribute.name, attribute.value) < 0) {
      failure_ = result::kFail;
      return xml::SAXAction::kStop;
    }
  }
  return xml::SAXAction::kContinue;
}

int SnapshotXmlParser::Attribute(std::string_view name, std::string_view value) {
  if (value.empty() || mode_ == Mode::kOther) return 0;
  if (MatchesSnapshotName(name, "name")) {
    if (mode_ == Mode::kFolder) {
      if (!folderPath_.empty()) folderPath_ += '\\';
      folderPath_ += value;
    } else {
      fileName_.assign(value);
    }
  } else if (MatchesSnapshotName(name, "blockHash")) {
    DecodeBlockHash(value);
  }
  return 0;
}

xml::SAXAction SnapshotXmlParser::EndElement(std::string_view name) {
  if (MatchesSnapshotName(name, "Folder")) {
    size_t cut = folderPath_.rfind('\\');
    folderPath_.resize(cut == std::string::npos ? 0 : cut);
    fileName_.clear();
  } else if (MatchesSnapshotName(name, "File")) {
    fileName_.clear();
  }
  return xml::SAXAction::kContinue;
}

SnapshotEntry* SnapshotXmlParser::FindFile() {
  // Files come in document order, which is mostly entry order: try the entry
  // after the last one found before searching.
  std::vector<SnapshotEntry>& entries = target_.entries;
  auto same = [](const std::string& a, const std::string& b) { return a == b || EqualsNoCase(a, b); };
  if (next_ < entries.size() && same(entries[next_].name, fileName_) && same(entries[next_].folder, folderPath_)) {
    return &entries[next_++];
  }
  SnapshotEntry* entry = target_.FindEntry(folderPath_, fileName_);
  if (entry) next_ = static_cast<size_t>(entry - entries.data()) + 1;
  return entry;
}

void SnapshotXmlParser::DecodeBlockHash(std::string_view text) {
  SnapshotEntry* entry = FindFile();
  if (!entry || entry->IsFolder()) return;
  if (const char* error = DecodeBase64Into(text, entry->blockHashes)) {
    entry->blockHashes.clear();
    target_.log().LogWithError(loglevel::kWarning, kSnapshotLogComponent, error,
                               "Invalid snapshot XML: Bad block hash detected for file '%ls\\%ls'", folderPath_,
                               fileName_);
    return;
  }
  // Whole 32-byte hashes only; and a file of known size has exactly one per
  // block, so that the validator never reads past the hashes it has.
  bool wholeHashes = entry->blockHashes.size() % kBlockHashSize == 0;
  bool rightCount = entry->size < 0 || entry->BlockHashCount() == entry->BlockCount(target_.blockSize);
  if (!wholeHashes || !rightCount) {
    entry->blockHashes.clear();
    target_.log().Log(loglevel::kWarning, kSnapshotLogComponent,
                      "Invalid snapshot XML: Bad block hash detected for file '%ls\\%ls'", folderPath_, fileName_);
  }
}

bool Snapshot::LoadBlockHashes() {
  for (SnapshotEntry& e : entries) e.blockHashes.clear();
  Result outcome = result::kOk;
  try {
    SnapshotXmlParser handler(*this);
    xml::SAXParser reader;
    reader.ParseMemory(documentText, handler);
    outcome = handler.failure();
  } catch (const Error& e) {
    log_->LogWithError(loglevel::kWarning, kSnapshotLogComponent, e.description(),
                       "Invalid snapshot XML: XML failed to load");
    outcome = e.code();
  }
  if (outcome == result::kOk) {
    for (const SnapshotEntry& e : entries) {
      if (e.IsFile() && e.size >= 1 && e.blockHashes.empty()) {
        log_->Log(loglevel::kWarning, kSnapshotLogComponent,
                  "Invalid snapshot XML: No block hash detected for file '%ls\\%ls'", e.folder, e.name);
        outcome = result::kNoMatch;
      }
    }
  }
  lastSnapshotError = outcome;
  return outcome == result::kOk;
}

}  // namespace pkgdlv
