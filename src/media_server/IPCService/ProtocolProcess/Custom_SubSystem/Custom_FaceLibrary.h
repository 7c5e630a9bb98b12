#ifndef CUSTOM_SUBSYSTEM_CUSTOM_FACELIBRARY_H
#define CUSTOM_SUBSYSTEM_CUSTOM_FACELIBRARY_H

namespace IPCService {
namespace MetaDataGW {

/// Where page files lie, for ITGT to import.
constexpr char FACE_LIBRARY_DIRECTORY[] = "/tmp/mmcblk0/face_basic/faceLib/";

/// What the name of a page file begins with; the index of the page's first record follows.
constexpr char PAGE_FILE_PREFIX[] = "white";

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
