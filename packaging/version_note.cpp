#include <cstdint>

// Name and version in the program itself, so that a file on a camera, or a core dump of it, tells what it is. The form
// is the package metadata note that systemd-coredump and readelf -n know.

namespace {

#define CAMGATE_DESCRIPTION R"({"type":"deb","name":"camgate","version":")" CAMGATE_VERSION R"("})"

struct VersionNote
{
    std::uint32_t ownerSize;
    std::uint32_t descriptionSize;
    std::uint32_t type;
    char owner[4];
    // A note begins and ends on a boundary of four bytes; what is left of the last ones is zero.
    alignas(4) char description[sizeof(CAMGATE_DESCRIPTION)];
};

constexpr std::uint32_t PACKAGE_METADATA = 0xcafe1a7e;

// The alignment is that of the struct; without the word, compilers align what is this long more widely, and a note is
// not to be.
alignas(VersionNote) [[gnu::section(".note.package"), gnu::used]] const VersionNote versionNote = {
    sizeof(versionNote.owner), sizeof(CAMGATE_DESCRIPTION), PACKAGE_METADATA, "FDO", CAMGATE_DESCRIPTION};

}  // namespace
