#include "foundation/PropertyList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "foundation/FileDescriptor.h"
#include "foundation/PropertyListBinaryReader.h"
#include "foundation/PropertyListXMLReader.h"

namespace vpnctl {

Result<Value> propertyListFromData(std::string_view bytes, std::string_view name, const PropertyListLimits &limits) {
  if (bytes.size() > limits.bytes) {
    return Error{.domain = std::string(kPropertyListErrorDomain),
                 .code = 1,
                 .message = std::string(name) + ": larger than " + std::to_string(limits.bytes) + " bytes"};
  }
  return bytes.starts_with("bplist00") ? propertyListFromBinary(bytes, name, limits)
                                       : propertyListFromXML(bytes, name, limits);
}

namespace {

Result<std::string> bytesOf(const FileDescriptor &file, const std::string &path) {
  std::string bytes;
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errnoError(errno, "read " + path);
    if (count == 0) break;
    bytes.append(buffer.data(), static_cast<std::size_t>(count));
    if (bytes.size() > kPropertyListMaximumSize) return errnoError(EFBIG, "read " + path);
  }
  return bytes;
}

}  // namespace

Result<std::string> propertyListBytesFromFile(const std::string &path, FileKinds kinds) {
  // Non-blocking, so that a FIFO in the file's place cannot hold us; for a regular file it means nothing.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return errnoError(errno, "open " + path);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return errnoError(errno, "read " + path);
  if (S_ISDIR(status.st_mode)) return errnoError(EISDIR, "read " + path);
  if (S_ISFIFO(status.st_mode) && kinds == FileKinds::regularAndPipes) {
    // Once more, and waiting. The first descriptor stays: a writer who has seen it would lose its reader.
    const FileDescriptor pipe(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    return pipe ? bytesOf(pipe, path) : errnoError(errno, "open " + path);
  }
  if (!S_ISREG(status.st_mode)) {
    return Error{
        .domain = std::string(kPOSIXErrorDomain), .code = EINVAL, .message = "read " + path + ": not a regular file"};
  }
  return bytesOf(file, path);
}

Result<Value> propertyListFromFile(const std::string &path) {
  const Result<std::string> bytes = propertyListBytesFromFile(path);
  if (!bytes) return bytes.error();
  return propertyListFromData(*bytes, path);
}

}  // namespace vpnctl
