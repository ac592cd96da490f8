// The configuration document of the delivery object: five delivery settings
// and the work folder as attributes of one element,
//
//   <PackageDelivery workFolder="..." historySize="30" retryDelay="180000"
//                    retryMaxDelay="7200000" retryMaxTries="0" retryMaxTime="0"/>
//
// Reading gives limited values in the getters' units (delays in
// milliseconds). Writing applies each attribute present through the
// settings' setters, which store delays as minutes but the maximum attempt
// time unchanged: a document read and written back multiplies the stored
// maximum attempt time by 60000 (then above its limit, so it reads as 0).
// That round trip is intended and kept.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "records/delivery_settings.h"

namespace pkgdlv {

// The owner of the work folder (the engine): gives the current folder for
// reading and takes a new one for writing. Either may throw Error, which the
// document operations pass on.
struct WorkFolderAccess {
  std::function<std::string()> current;
  std::function<void(const std::string& folder)> change;
};

// The document as text (one element, no XML declaration).
std::string ReadConfigurationDocument(DeliverySettings& settings, const WorkFolderAccess& work_folder);

// Applies a document, in the order workFolder, historySize, retryDelay,
// retryMaxDelay, retryMaxTries, retryMaxTime; absent attributes leave their
// settings alone and the document element's name is not checked.
// Throws Error 0x80070057:
//   "Configuration XML failed to load" when the text has no document element;
//   "Configuration attribute %ls is not a 32-bit number: '%ls'" when a numeric
//   attribute is not a whole decimal number from -2147483648 to 4294967295.
// Numbers are all checked before anything is applied, so a bad number changes
// nothing. Setting write failures are logged by the settings, not thrown.
void WriteConfigurationDocument(std::string_view xml, DeliverySettings& settings, const WorkFolderAccess& work_folder);

}  // namespace pkgdlv
