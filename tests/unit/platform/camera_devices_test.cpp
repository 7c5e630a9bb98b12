#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// What programs call that are built with _FORTIFY_SOURCE.
extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int folder, const char* path, int flags);
int __openat64_2(int folder, const char* path, int flags);
}

namespace {

const char EVENT_NODE[] = "/mnt/srvfs/event.paas.olv";
const char CACHE_NODE[] = "/dev/cache";
constexpr unsigned long MAP_REQUEST = 0x80100701;

/** The four words of the map request. */
struct Request
{
    std::uint32_t address = 0;
    std::uint32_t id = 0;
    std::uint32_t length = 0;
    std::uint32_t attribute = 0;
};

/** A folder that goes with the object, with the socket and the cache of a played camera in it. */
class Camera
{
public:
    Camera()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "camera-XXXXXX").string();
        m_folder = mkdtemp(pattern.data());
        std::filesystem::create_directory(cache());
        setenv("CAMERA_EVENT_SOCKET", socketPath().c_str(), 1);
        setenv("CAMERA_CACHE_FOLDER", cache().c_str(), 1);
    }
    ~Camera() { std::filesystem::remove_all(m_folder); }
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    std::string file(const std::string& name) const { return m_folder + "/" + name; }
    std::string cache() const { return file("cache"); }
    std::string socketPath() const { return file("event"); }

    void publish(const std::string& id, const std::string& content) const
    {
        std::ofstream(cache() + "/" + id, std::ios::binary) << content;
    }

    int listener() const
    {
        const int result = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, socketPath().c_str());
        EXPECT_EQ(bind(result, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(result, 64), 0);
        return result;
    }

private:
    std::string m_folder;
};

/**
 * Runs the body in a new process of this program that has the library preloaded. The framework starts one for a death
 * test, with this environment, and leads it here again.
 */
void inPreloadedProcess(void (*body)(const Camera& camera))
{
    setenv("LD_PRELOAD", CAMGATE_LIB_DIR "/libcamera_devices.so", 1);
    const char* const options = std::getenv("ASAN_OPTIONS");
    // The address sanitizer wants to be the first library of all otherwise.
    setenv("ASAN_OPTIONS", (std::string(options == nullptr ? "" : options) + ":verify_asan_link_order=0").c_str(), 1);
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            {
                const Camera camera;
                body(camera);
            }
            std::exit(testing::Test::HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
    unsetenv("LD_PRELOAD");
}

TEST(CameraDevicesDeathTest, EventNodeCarriesPackets)
{
    inPreloadedProcess([](const Camera& camera) {
        const int listener = camera.listener();
        const int node = open(EVENT_NODE, O_RDWR);
        ASSERT_GT(node, 0);
        const int service = accept(listener, nullptr, nullptr);
        ASSERT_GT(service, 0);
        char header[16] = {'h'};
        char body[288] = {'b'};
        iovec parts[2] = {{header, sizeof header}, {body, sizeof body}};
        EXPECT_EQ(writev(node, parts, 2), 304);
        char packet[400];
        EXPECT_EQ(recv(service, packet, sizeof packet, 0), 304);
        EXPECT_EQ(packet[0], 'h');
        EXPECT_EQ(packet[16], 'b');
        ASSERT_EQ(send(service, "first", 5, 0), 5);
        ASSERT_EQ(send(service, "second", 6, 0), 6);
        EXPECT_EQ(read(node, packet, 256), 5);
        EXPECT_EQ(read(node, packet, 256), 6);
    });
}

void expectMissing(const char* node, int error = ENOENT)
{
    EXPECT_EQ(open(node, O_RDWR), -1);
    EXPECT_EQ(errno, error);
}

TEST(CameraDevicesDeathTest, NodesAreMissingWhenNobodyListensAndWithoutTheFolder)
{
    inPreloadedProcess([](const Camera& camera) {
        expectMissing(EVENT_NODE);
        close(camera.listener());  // leaves the socket's file
        expectMissing(EVENT_NODE);
        setenv("CAMERA_EVENT_SOCKET", std::string(200, 'x').c_str(), 1);
        expectMissing(EVENT_NODE, ENAMETOOLONG);
        std::filesystem::remove(camera.cache());
        expectMissing(CACHE_NODE);
    });
}

TEST(CameraDevicesDeathTest, CacheNodeMapsTheFileOfTheIdentifierInTheWholeLength)
{
    inPreloadedProcess([](const Camera& camera) {
        const int node = open(CACHE_NODE, O_RDWR);
        ASSERT_GT(node, 0);
        const std::vector<std::tuple<std::uint32_t, std::string, std::uint32_t>> files = {
            {4294967295U, std::string(10000, 'c'), 10000}, {1, "short", 100000}, {2, "", 100000}};
        for (const auto& [id, content, length] : files) {
            camera.publish(std::to_string(id), content);
            Request request{0, id, length, 77};
            ASSERT_EQ(ioctl(node, MAP_REQUEST, &request), 0);
            EXPECT_EQ(request.id, id);
            EXPECT_EQ(request.length, length);
            EXPECT_EQ(request.attribute, 77U);
            void* const mapped = reinterpret_cast<void*>(static_cast<std::uintptr_t>(request.address));
            ASSERT_NE(mapped, nullptr);
            std::string expected = content;
            expected.resize(length, '\0');
            EXPECT_EQ(std::string(static_cast<char*>(mapped), length), expected);
            EXPECT_EQ(munmap(mapped, request.length), 0);
        }
    });
}

TEST(CameraDevicesDeathTest, CacheNodeRefusesWhatItCannotMap)
{
    inPreloadedProcess([](const Camera& camera) {
        camera.publish("1", "content");
        const int node = open(CACHE_NODE, O_RDWR);
        const std::vector<std::pair<Request, int>> refused = {
            {{0, 2, 100, 0}, ENOENT}, {{0, 1, 0, 0}, EINVAL}, {{0, 1, UINT32_MAX, 0}, ENOMEM}};
        for (auto [request, error] : refused) {
            EXPECT_EQ(ioctl(node, MAP_REQUEST, &request), -1);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(request.address, 0U);
        }
        void* const nothing = nullptr;
        EXPECT_EQ(ioctl(node, MAP_REQUEST, nothing), -1);
        EXPECT_EQ(errno, EFAULT);
    });
}

TEST(CameraDevicesDeathTest, EveryWayOfOpeningReachesTheNodes)
{
    inPreloadedProcess([](const Camera& camera) {
        const int listener = camera.listener();
        for (const char* node : {EVENT_NODE, CACHE_NODE}) {
            const int descriptors[] = {open(node, O_RDWR),
                                       open64(node, O_RDWR),
                                       openat(AT_FDCWD, node, O_RDWR),
                                       openat64(AT_FDCWD, node, O_RDWR),
                                       __open_2(node, O_RDWR),
                                       __open64_2(node, O_RDWR),
                                       __openat_2(AT_FDCWD, node, O_RDWR),
                                       __openat64_2(AT_FDCWD, node, O_RDWR)};
            for (const int descriptor : descriptors) {
                EXPECT_GT(descriptor, 0) << node;
                close(descriptor);
                if (node == EVENT_NODE) {
                    close(accept(listener, nullptr, nullptr));
                }
            }
        }
    });
}

TEST(CameraDevicesDeathTest, KeepsTheCloseOnExecFlagAsGiven)
{
    inPreloadedProcess([](const Camera& camera) {
        const int listener = camera.listener();
        for (const char* node : {EVENT_NODE, CACHE_NODE}) {
            EXPECT_EQ(fcntl(open(node, O_RDWR), F_GETFD), 0);
            EXPECT_EQ(fcntl(open(node, O_RDWR | O_CLOEXEC), F_GETFD), FD_CLOEXEC);
        }
        close(listener);
    });
}

TEST(CameraDevicesDeathTest, OtherPathsGoToTheSystem)
{
    inPreloadedProcess([](const Camera& camera) {
        umask(0);
        struct stat status
        {
        };
        close(open(camera.file("a").c_str(), O_CREAT | O_WRONLY, 0641));
        close(open64(camera.file("b").c_str(), O_CREAT | O_WRONLY, 0642));
        close(openat(AT_FDCWD, camera.file("c").c_str(), O_CREAT | O_WRONLY, 0643));
        close(openat64(AT_FDCWD, camera.file("d").c_str(), O_CREAT | O_WRONLY, 0644));
        for (unsigned int i = 0; i < 4; ++i) {
            ASSERT_EQ(stat(camera.file(std::string(1, static_cast<char>('a' + i))).c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & 07777U, 0641U + i);
        }
        EXPECT_GT(__open_2(camera.file("a").c_str(), O_RDONLY), 0);
        EXPECT_GT(__open64_2(camera.file("a").c_str(), O_RDONLY), 0);
        EXPECT_GT(__openat_2(AT_FDCWD, camera.file("a").c_str(), O_RDONLY), 0);
        EXPECT_GT(__openat64_2(AT_FDCWD, camera.file("a").c_str(), O_RDONLY), 0);
        const int unnamed = open(camera.file("").c_str(), O_TMPFILE | O_WRONLY, 0604);
        ASSERT_EQ(fstat(unnamed, &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0604U);
        EXPECT_EQ(open("/dev/cache/", O_RDWR), -1);
        EXPECT_EQ(open("/dev/cache2", O_RDWR), -1);
        EXPECT_EQ(errno, ENOENT);
    });
}

TEST(CameraDevicesDeathTest, OtherRequestsAndDescriptorsGoToTheSystem)
{
    inPreloadedProcess([](const Camera& camera) {
        camera.publish("0", "content");
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_EQ(write(ends[1], "abc", 3), 3);
        int waiting = 0;
        EXPECT_EQ(ioctl(ends[0], FIONREAD, &waiting), 0);
        EXPECT_EQ(waiting, 3);
        Request request{0, 0, 4, 0};
        for (const int descriptor : {ends[0], -1}) {
            // An emulator does not know the request either, and says so in its own way.
            ASSERT_EQ(syscall(SYS_ioctl, descriptor, MAP_REQUEST, &request), -1);
            const int fromSystem = errno;
            errno = 0;
            EXPECT_EQ(ioctl(descriptor, MAP_REQUEST, &request), -1);
            EXPECT_EQ(errno, fromSystem);
        }
        EXPECT_EQ(request.address, 0U);
        EXPECT_EQ(ioctl(open(CACHE_NODE, O_RDWR), FIONREAD, &waiting), -1);
    });
}

}  // namespace
