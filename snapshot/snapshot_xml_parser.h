// The streaming pass over a snapshot document: reads every "blockHash"
// attribute into its file's entry without building a tree (Snapshot::
// LoadBlockHashes runs it over documentText).
//
// Element and attribute names are matched ASCII case-insensitively over only
// as many characters as the document's name has: an element "F" counts as
// "Folder" (tested before "File") and an attribute "n" as "name". Documents in
// the field rely on this; the tree pass compares names exactly.
//
// One handler serves one parse on one thread; it writes into the entries of
// the snapshot it was made for (which must outlive it and be in entry order).
#pragma once

#include <pkgdlv/result_codes.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "snapshot/snapshot.h"
#include "util/xml_sax.h"

namespace pkgdlv {

class SnapshotXmlParser final : public xml::SAXContentHandler {
 public:
  // Where the reader is: in a File element, in a Folder element, or elsewhere.
  enum class Mode { kFile = 0, kFolder = 1, kOther = 2 };

  explicit SnapshotXmlParser(Snapshot& target);

  xml::SAXAction StartElement(std::string_view name, const xml::SAXAttributes& attributes) override;
  xml::SAXAction EndElement(std::string_view name) override;

  // One attribute of the current File or Folder element, in document order.
  // Negative ends the pass with a general failure (none of the attributes
  // this handler reads gives one today; a bad block hash is reported and
  // skipped).
  int Attribute(std::string_view name, std::string_view value);

  Mode mode() const { return mode_; }
  const std::string& folderPath() const { return folderPath_; }
  const std::string& fileName() const { return fileName_; }
  // Code of a failure raised by Attribute; 0 while none.
  Result failure() const { return failure_; }

 private:
  void DecodeBlockHash(std::string_view text);
  SnapshotEntry* FindFile();

  Snapshot& target_;
  std::string folderPath_;
  std::string fileName_;
  Mode mode_ = Mode::kOther;
  Result failure_ = result::kOk;
  size_t next_ = 0;  // the entry likely to be looked up next
};

// True when the document's name is a prefix of the wanted name, compared
// ASCII case-insensitively (an empty name matches nothing).
bool MatchesSnapshotName(std::string_view documentName, std::string_view wanted);

// Decodes standard Base64 into out (resized to the decoded length). nullptr on
// success, else what is wrong with the text (out is then unspecified).
const char* DecodeBase64Into(std::string_view text, std::vector<uint8_t>& out);

}  // namespace pkgdlv
