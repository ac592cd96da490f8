// The in-memory snapshot of one package: the signed listing of every folder
// and file of the package (sizes, last-write times, whole-file and block
// hashes) with the package identifier, version, creation time and hash block
// size, and its two documents, "snapshot.xml" and "snapdata.xml".
//
// Ownership and threads: a Snapshot is a value owned by one package record
// (PackageRequest), which guards it with its own lock; the Snapshot itself is
// not synchronised, so one thread at a time may use an object. It keeps a
// shared reference to the logger it writes its lines to (component
// "Snapshot"); copies share that logger.
//
// Failure behaviour: loads and parses report failure through their bool
// result and a warning line, and leave the object unchanged (except
// hasUnhashedFiles, see ParseSnapshotElement). Nothing here throws for bad
// documents; only resource failures (out of memory) escape as exceptions.
#pragma once

#include <pkgdlv/result_codes.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/logger.h"
#include "snapshot/snapshot_entry.h"
#include "util/filetime.h"
#include "util/guid.h"

namespace pkgdlv {

namespace xml {
class Node;
}
class Crypto;
class Snapshot;

// Hash block size of a snapshot whose document names none (or names 0).
constexpr uint32_t kDefaultBlockSize = 2097152;
constexpr std::string_view kSnapshotLogComponent = "Snapshot";
constexpr std::string_view kSnapshotFileName = "snapshot.xml";
constexpr std::string_view kSecurityDataFileName = "snapdata.xml";

// Where ComposeXml takes the block hashes of each file from. The default
// (EntryBlockHashes) uses the hashes held in the entries themselves; the hash
// store of the validator supplies its own.
class BlockHashSource {
 public:
  enum class Lookup {
    kFound,       // hashes holds the file's concatenated block hashes
    kNone,        // the file has none; written without "blockHash", silently
    kReadFailed,  // the store could not be read; written without "blockHash", with a warning
  };
  virtual ~BlockHashSource() = default;
  // storeKey is HashStoreKey(snapshot id text, file path) for sources that
  // keep hashes by that key. Called on the composing thread.
  virtual Lookup Read(const Snapshot& snapshot, const SnapshotEntry& file, const std::string& storeKey,
                      std::vector<uint8_t>& hashes) = 0;
};

// The block hashes held in the entries: a file with non-empty blockHashes is
// kFound, any other kNone.
class EntryBlockHashes final : public BlockHashSource {
 public:
  Lookup Read(const Snapshot& snapshot, const SnapshotEntry& file, const std::string& storeKey,
              std::vector<uint8_t>& hashes) override;
};

// Key of a file's block hashes in the secure store:
// "Package Delivery\<id text>\hash\<package-relative path>".
std::string HashStoreKey(std::string_view idText, std::string_view relativePath);

class Snapshot {
 public:
  // A null logger drops every line.
  explicit Snapshot(std::shared_ptr<Logger> log = nullptr);

  // ---- Fields (public: the record, the validator and the transport read and
  // fill them directly under the record's lock). ----
  Guid id;                                 // package identifier ("id"); all zero after Reset
  std::string path;                        // package folder on disk; kept when a document is loaded
  std::string documentText;                // the loaded snapshot text, read again by LoadBlockHashes
  std::string signature;                   // Base64 signature text; kept when a document is loaded
  FileTime time = 0;                       // creation time ("time")
  uint32_t version = 0;                    // package version ("version", older documents "PkgVersion")
  uint32_t deleteInvalidOnly = 0;          // clearing the package deletes only invalid files
  std::vector<uint8_t> signedData;         // exact bytes the signature covers; kept when a document is loaded
  std::vector<SnapshotEntry> entries;      // flat, in entry order after a load (EntryOrder)
  bool hashNotRequired = false;            // a file with size and time is complete without hashes; kept across loads
  bool hasUnhashedFiles = false;           // some File had neither "fileHash" nor "blockHash"; kept across loads
  uint32_t totalBlocks = 0;                // blocks of all files together
  uint32_t declaredBlockSize = 0;          // "blockSize" of the document; 0 for a legacy document
  uint32_t blockSize = kDefaultBlockSize;  // effective hash block size

  // Empties everything for reuse (id zero, time 0, block size 2 MiB, flags false).
  void Reset();

  // ---- The snapshot document ("snapshot.xml") ----

  // Loads a document given as raw bytes (UTF-8, or UTF-16 with a byte order
  // mark). With isSecurityData the root goes to ParseSecurityData. Otherwise
  // the tree pass runs (a plain document is walked straight from the text,
  // without building a tree, with the same result and lines as
  // ParseSnapshotElement) and the text is kept in documentText for
  // LoadBlockHashes. A text that is not well-formed XML or has no document
  // element logs "Invalid snapshot XML: XML failed to load".
  bool LoadXml(std::string text, bool isSecurityData = false);

  // The tree pass over a parsed document (also for a Snapshot element found
  // inside another document): reads the root's attributes and its Root folder
  // into a fresh snapshot, refuses unsafe names ("Invalid snapshot XML:
  // Unsafe path '...'", see util/safe_path.h) and twins that differ only in
  // letter case, sorts the entries, numbers their blocks and checks Root's
  // total size (not checked when a file's size is unknown, as the writer puts
  // 0 then). On success copies id, time, version, block sizes, totalBlocks
  // and entries into this object and empties documentText (LoadXml sets it
  // afterwards). A File without any hash sets hasUnhashedFiles on this object
  // even when the pass then fails.
  bool ParseSnapshotElement(const xml::Node& root);

  // The streaming pass over documentText: decodes every "blockHash" into its
  // entry's blockHashes (entries are cleared first). A hash text that is not
  // Base64, not whole 32-byte hashes, or (for a file of known size) not
  // exactly BlockCount(blockSize) hashes is refused with a warning. So after
  // success every file of one byte or more holds exactly its blocks' hashes.
  // Fails when a file of one byte or more is left without block hashes (each
  // such file is reported); the pass's result code (0 on success, 0x80070491
  // when hashes are missing, the reader's code when the text does not parse)
  // is left as the thread's LastSnapshotError().
  bool LoadBlockHashes();

  // The document text (no XML declaration, so a package document can embed
  // it). Block hashes come from source (the entries' own when null).
  std::string ComposeXml(BlockHashSource* source = nullptr) const;
  // The bytes of a "snapshot.xml" file: an XML declaration, ComposeXml() and a
  // final line break.
  std::string ComposeDocumentFile(BlockHashSource* source = nullptr) const;

  // ---- Entries ----

  // The braced upper-case text of id, cached until id changes.
  const std::string& GetIdText() const;
  // True when a file entry has an unknown size, a zero lastModified, or
  // (hashNotRequired false and) neither fileHash nor hasBlockHash.
  bool IsIncomplete() const;
  // Binary search in entry order; entries must be in order (as after a load or
  // OrderEntries). Null when none matches. A folder entry has an empty name.
  SnapshotEntry* FindEntry(std::string_view folder, std::string_view name);
  const SnapshotEntry* FindEntry(std::string_view folder, std::string_view name) const;
  // Sets the state of the matching entry; false when none matches.
  bool SetEntryState(std::string_view folder, std::string_view name, uint32_t state);
  // Every file entry whose state is not valid goes back to not checked.
  void ResetStates();

  // Sorts the entries (EntryOrder) and numbers the blocks: each file starts a
  // new block at firstBlock and occupies BlockCount(blockSize) blocks; folders
  // and files of unknown size keep no blocks of their own (an empty file shares
  // its firstBlock with the next file). Sets totalBlocks. Used by the tree pass
  // and by anything that builds a snapshot from a folder or listing.
  struct Totals {
    uint64_t knownSize = 0;      // sum of the known file sizes
    bool unknownSize = false;    // some file's size is unknown
    bool tooManyBlocks = false;  // the numbering does not fit 32 bits
    // An entry that names the same file or folder as the one before it,
    // ignoring letter case; null when there is none.
    const SnapshotEntry* twin = nullptr;
  };
  Totals OrderEntries();

  // ---- The security data ("snapdata.xml") and the signature ----

  // <SnapshotData id path><Security signature/></SnapshotData>, no declaration.
  std::string ComposeSecurityData() const;
  // Takes the id (unless all zero), the path (unless empty) and always the
  // signature from a SnapshotData element; unchanged on failure.
  bool ParseSecurityData(const xml::Node& root);
  // "snapdata.xml" in the folder of the snapshot file.
  static std::filesystem::path GetSecurityDataPath(const std::filesystem::path& snapshotPath);
  // Writes the security data document and, when signedData is not empty,
  // signedData unchanged to snapshotPath; each file goes to a temporary name
  // and is renamed into place. True when every write succeeded.
  bool SaveSecurityData(const std::filesystem::path& snapshotPath);
  // For a snapshot composed on this computer: writes ComposeXml() as UTF-8 to
  // snapshotPath, signs the file with the private key in signingKeyPem (PEM
  // file; none configured when empty), keeps the Base64 signature and the
  // file's bytes as signature and signedData, and writes the security data
  // beside it. When signing fails (or no key is configured) signature and
  // signedData stay as they were. True when every write succeeded.
  bool SaveSnapshot(const std::filesystem::path& snapshotPath, Crypto& crypto,
                    const std::filesystem::path& signingKeyPem = {});
  // Checks signature over signedData with the public key (DER
  // SubjectPublicKeyInfo bytes), SHA-256. False, with an error line, when the
  // signature or the signed data is empty or the signature is not Base64.
  bool IsValidSignature(Crypto& crypto, std::span<const uint8_t> publicKeyDer) const;

  Logger& log() const { return *log_; }
  const std::shared_ptr<Logger>& logger() const { return log_; }
  void SetLogger(std::shared_ptr<Logger> log);

 private:
  friend class SnapshotComposer;

  // Copies what a successful tree pass read into this object.
  void TakeTreePass(Snapshot& fresh);

  std::shared_ptr<Logger> log_;
  mutable std::string idText_;  // cache of GetIdText, valid while idTextOf_ == id
  mutable Guid idTextOf_;
};

// Equal when id, time (to the second), version, path (case-insensitive) and
// the entry lists (same count, pairwise in order) are equal.
bool operator==(const Snapshot& a, const Snapshot& b);

// Result code of the calling thread's last LoadBlockHashes (0 on success).
Result LastSnapshotError();

}  // namespace pkgdlv
