#include "dbase/core/dbf_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <mutex>

#include "dbase/core/codepage.h"
#include "dbase/core/collation.h"
#include "dbase/core/error.h"
#include "dbase/core/index_tag.h"
#include "dbase/core/path.h"

namespace dbase {

namespace {

// dBase caps a table at a billion rows (its lock range is that wide).
constexpr uint64_t kMaxRecords = 1000000000ull;
// The append lock of dBase / BDE: one byte past the record lock range.
constexpr off_t kAppendLockOffset = 0xEFFFFFFFll;

std::mutex& registryMutex() {
  static std::mutex m;
  return m;
}
std::map<std::string, std::weak_ptr<DbfFile>>& registry() {
  static std::map<std::string, std::weak_ptr<DbfFile>> r;
  return r;
}

std::string baseName(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string canonical(const std::string& path) {
  char buffer[PATH_MAX];
  return realpath(path.c_str(), buffer) ? std::string(buffer) : path;
}

std::string systemError(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

bool knownVersion(uint8_t v) {
  switch (v) {
    case 0x03: case 0x83: case 0x8B: case 0x43: case 0x63: case 0xCB:  // dBase III / IV
    case 0x30: case 0x31: case 0xF5:                                   // FoxPro
      return true;
    default:
      return false;
  }
}

bool knownType(char t) { return t && std::strchr("CNFLDM", t); }

// Holds the dBase append lock for the lifetime of the object. Open file
// description locks, so closing another descriptor of the file keeps it.
class AppendLock {
 public:
  explicit AppendLock(int fd) : fd_(fd) { set(F_WRLCK); }
  ~AppendLock() { set(F_UNLCK); }

 private:
  void set(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = kAppendLockOffset;
    lock.l_len = 1;
    while (fcntl(fd_, F_OFD_SETLKW, &lock) == -1 && errno == EINTR) {
    }
  }
  int fd_;
};

void todayAsHeaderDate(unsigned char out[3]) {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  out[0] = uint8_t(local.tm_year);  // years since 1900
  out[1] = uint8_t(local.tm_mon + 1);
  out[2] = uint8_t(local.tm_mday);
}

}  // namespace

std::shared_ptr<DbfFile> DbfFile::open(const std::string& path) {
  std::string resolved = resolvePathCaseInsensitive(path);
  std::string key = canonical(resolved);
  {
    std::lock_guard<std::mutex> guard(registryMutex());
    if (auto existing = registry()[key].lock()) {
      existing->syncWithDisk();
      return existing;
    }
  }
  // Read outside the registry lock: a file that fails to load is destroyed
  // on the way out, and its destructor takes the lock.
  std::shared_ptr<DbfFile> file(new DbfFile());
  file->path_ = resolved;
  file->name_ = baseName(resolved);
  file->fd_ = ::open(resolved.c_str(), O_RDWR | O_CLOEXEC);
  file->writable_ = file->fd_ >= 0;
  if (file->fd_ < 0 && (errno == EACCES || errno == EROFS || errno == EPERM))
    file->fd_ = ::open(resolved.c_str(), O_RDONLY | O_CLOEXEC);
  if (file->fd_ < 0) throw Error(ErrorKind::Io, file->name_, systemError("no se puede abrir"));
  struct stat st {};
  if (fstat(file->fd_, &st) == 0 && S_ISDIR(st.st_mode))
    throw Error(ErrorKind::Io, file->name_, "es un directorio, no una tabla");
  file->load();
  std::lock_guard<std::mutex> guard(registryMutex());
  // Another thread may have opened the same file meanwhile: share its copy.
  if (auto existing = registry()[key].lock()) return existing;
  registry()[key] = file;
  return file;
}

std::shared_ptr<DbfFile> DbfFile::create(const std::string& path, const std::vector<FieldSpec>& specs,
                                         uint8_t languageDriver, bool overwrite) {
  const std::string name = baseName(path);
  if (specs.empty() || specs.size() > kMaxFields)
    throw Error(ErrorKind::InvalidArgument, name, "una tabla tiene de 1 a 255 campos");
  std::string header(kHeaderSize + kDescriptorSize * specs.size() + 1, '\0');
  auto* h = reinterpret_cast<unsigned char*>(header.data());
  uint32_t recordLength = 1;
  for (size_t i = 0; i < specs.size(); ++i) {
    const FieldSpec& s = specs[i];
    if (s.name.empty() || s.name.size() > 10)
      throw Error(ErrorKind::InvalidArgument, name, "nombre de campo inválido: «" + s.name + "»");
    uint32_t maxLength = (s.type == FieldType::Character) ? kMaxCharLength
                         : (s.type == FieldType::Logical) ? 1
                         : (s.type == FieldType::Date)    ? 8
                         : (s.type == FieldType::Memo)    ? 10
                                                          : kMaxNumericLength;
    if (s.length == 0 || s.length > maxLength || (s.decimals && s.decimals + 2 > s.length))
      throw Error(ErrorKind::InvalidArgument, name, "longitud inválida para el campo " + s.name);
    unsigned char* d = h + kHeaderSize + kDescriptorSize * i;
    for (size_t c = 0; c < s.name.size(); ++c) d[kFieldOffName + c] = uint8_t(std::toupper(uint8_t(s.name[c])));
    d[kFieldOffType] = uint8_t(s.type);
    d[kFieldOffLength] = uint8_t(s.length);
    d[kFieldOffDecimals] = uint8_t(s.decimals);
    recordLength += s.length;
  }
  if (recordLength > 0xFFFF) throw Error(ErrorKind::InvalidArgument, name, "registro demasiado largo");
  h[kOffVersion] = 0x03;
  todayAsHeaderDate(h + kOffUpdateDate);
  putU32(h + kOffRecordCount, 0);
  putU16(h + kOffHeaderLength, uint16_t(header.size()));
  putU16(h + kOffRecordLength, uint16_t(recordLength));
  h[kOffLanguageDriver] = languageDriver;
  header.back() = char(kHeaderTerminator);
  header.push_back(char(kEndOfFile));

  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (overwrite ? O_TRUNC : O_EXCL);
  int fd = ::open(path.c_str(), flags, 0644);
  if (fd < 0) throw Error(ErrorKind::Io, name, systemError("no se puede crear"));
  bool ok = ::write(fd, header.data(), header.size()) == ssize_t(header.size());
  ok = (::close(fd) == 0) && ok;
  if (!ok) throw Error(ErrorKind::Io, name, systemError("no se puede escribir la cabecera"));
  {
    // A table overwritten in place must not be served from a stale copy.
    std::lock_guard<std::mutex> guard(registryMutex());
    if (auto existing = registry()[canonical(path)].lock()) existing->syncWithDisk();
  }
  return open(path);
}

DbfFile::~DbfFile() {
  if (fd_ >= 0) ::close(fd_);
  std::lock_guard<std::mutex> guard(registryMutex());
  auto it = registry().find(canonical(path_));
  if (it != registry().end() && it->second.expired()) registry().erase(it);
}

void DbfFile::lastUpdate(int& year, int& month, int& day) const {
  year = date_[0];
  month = date_[1];
  day = date_[2];
}

int DbfFile::fieldIndex(std::string_view name) const {
  for (size_t i = 0; i < fields_.size(); ++i) {
    const std::string& f = fields_[i].name;
    if (f.size() == name.size() &&
        std::equal(f.begin(), f.end(), name.begin(),
                   [](char a, char b) { return std::toupper(uint8_t(a)) == std::toupper(uint8_t(b)); }))
      return int(i);
  }
  return -1;
}

const FieldDescriptor& DbfFile::field(std::string_view name) const {
  int i = fieldIndex(name);
  if (i < 0) throw Error(ErrorKind::InvalidArgument, name_, "campo desconocido: " + std::string(name));
  return fields_[size_t(i)];
}

std::string DbfFile::blankRecord() const { return std::string(recordLength_, ' '); }

void DbfFile::load() {
  struct stat st {};
  if (fstat(fd_, &st) != 0) throw Error(ErrorKind::Io, name_, systemError("no se puede leer"));
  const uint64_t fileSize = uint64_t(st.st_size);
  std::vector<unsigned char> header(std::min<uint64_t>(fileSize, kHeaderSize + kDescriptorSize * 256 + 1));
  if (!header.empty() && pread(fd_, header.data(), header.size(), 0) != ssize_t(header.size()))
    throw Error(ErrorKind::Io, name_, systemError("no se puede leer la cabecera"));
  parseHeader(header.data(), header.size(), fileSize);

  const uint32_t declared = getU32(header.data() + kOffRecordCount);
  const uint64_t complete = (fileSize - headerLength_) / recordLength_;
  uint64_t count = std::min<uint64_t>(declared, complete);
  rows_.assign(size_t(std::min<uint64_t>(complete, kMaxRecords)) * recordLength_, ' ');
  if (!rows_.empty()) {
    size_t done = 0;
    while (done < rows_.size()) {
      ssize_t n = pread(fd_, rows_.data() + done, rows_.size() - done, off_t(headerLength_ + done));
      if (n <= 0) throw Error(ErrorKind::Io, name_, systemError("no se pueden leer los registros"));
      done += size_t(n);
    }
  }
  // Whole rows past the declared count were written by a program that stopped
  // before updating the header: keep them while they look like rows.
  while (count < complete && count < kMaxRecords &&
         (rows_[count * recordLength_] == kLiveFlag || rows_[count * recordLength_] == kDeletedFlag))
    ++count;
  if (count != declared)
    warnings_.push_back("la cabecera declara " + std::to_string(declared) + " registros y el fichero tiene " +
                        std::to_string(count) + " completos; se leen " + std::to_string(count));
  rows_.resize(size_t(count) * recordLength_);
  count_ = uint32_t(count);
  deleted_ = 0;
  for (uint32_t r = 1; r <= count_; ++r) deleted_ += isDeleted(r);
  diskSize_ = fileSize;
  diskTimeNs_ = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  diskInode_ = st.st_ino;
  ownWritesSinceStat_ = false;
}

void DbfFile::parseHeader(const unsigned char* h, size_t available, uint64_t fileSize) {
  if (available < kHeaderSize) throw Error(ErrorKind::Corrupt, name_, "cabecera truncada");
  version_ = h[kOffVersion];
  if (version_ == 0x04) throw Error(ErrorKind::NotSupported, name_, "tablas dBase 7 no soportadas");
  if (!knownVersion(version_)) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%02X", version_);
    throw Error(ErrorKind::Corrupt, name_, std::string("no es una tabla dBase (versión ") + hex + ")");
  }
  if (h[kOffEncrypted]) throw Error(ErrorKind::NotSupported, name_, "tabla cifrada");
  std::memcpy(date_, h + kOffUpdateDate, 3);
  headerLength_ = getU16(h + kOffHeaderLength);
  recordLength_ = getU16(h + kOffRecordLength);
  productionMdx_ = h[kOffProductionMdx] == 1;
  languageDriver_ = h[kOffLanguageDriver];
  codePage_ = &CodePage::forLanguageDriver(languageDriver_);
  collation_ = &Collation::forLanguageDriver(languageDriver_);
  if (headerLength_ < kHeaderSize + kDescriptorSize + 1 || headerLength_ > fileSize)
    throw Error(ErrorKind::Corrupt, name_, "longitud de cabecera inválida (" + std::to_string(headerLength_) + ")");
  if (recordLength_ < 2) throw Error(ErrorKind::Corrupt, name_, "longitud de registro inválida");

  fields_.clear();
  uint32_t offset = 1;
  for (size_t pos = kHeaderSize;; pos += kDescriptorSize) {
    if (pos >= available || pos >= headerLength_)
      throw Error(ErrorKind::Corrupt, name_, "falta el terminador de los descriptores de campo");
    if (h[pos] == kHeaderTerminator) break;
    if (pos + kDescriptorSize > available || pos + kDescriptorSize > headerLength_)
      throw Error(ErrorKind::Corrupt, name_, "descriptor de campo truncado");
    if (fields_.size() == kMaxFields) throw Error(ErrorKind::Corrupt, name_, "más de 255 campos");
    const unsigned char* d = h + pos;
    FieldDescriptor f;
    for (int c = 0; c < 11 && d[c]; ++c) {
      if (d[c] < 0x20 || d[c] > 0x7E)
        throw Error(ErrorKind::Corrupt, name_, "nombre de campo ilegible en el descriptor " +
                                                   std::to_string(fields_.size() + 1));
      f.name.push_back(char(d[c]));
    }
    while (!f.name.empty() && f.name.back() == ' ') f.name.pop_back();
    if (f.name.empty())
      throw Error(ErrorKind::Corrupt, name_, "campo sin nombre en el descriptor " + std::to_string(fields_.size() + 1));
    char type = char(d[kFieldOffType]);
    if (!knownType(type))
      throw Error(ErrorKind::NotSupported, name_, "campo " + f.name + " de tipo «" + std::string(1, type) + "» no soportado");
    f.type = FieldType(type);
    f.length = d[kFieldOffLength];
    f.decimals = d[kFieldOffDecimals];
    if (f.length == 0) throw Error(ErrorKind::Corrupt, name_, "campo " + f.name + " de longitud 0");
    f.offset = offset;
    offset += f.length;
    fields_.push_back(std::move(f));
  }
  if (fields_.empty()) throw Error(ErrorKind::Corrupt, name_, "la tabla no tiene campos");
  if (offset > recordLength_)
    throw Error(ErrorKind::Corrupt, name_, "los campos (" + std::to_string(offset) +
                                               " bytes) no caben en el registro de " + std::to_string(recordLength_));
}

void DbfFile::checkWritable() const {
  if (productionMdx_)
    throw Error(ErrorKind::NotSupported, name_,
                "la tabla tiene un índice de producción .MDX que este motor aún no mantiene; "
                "escribir en ella lo dejaría desfasado para los demás programas");
  if (!writable_) throw Error(ErrorKind::Io, name_, "la tabla es de sólo lectura");
}

void DbfFile::writeAt(uint64_t offset, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = pwrite(fd_, p, size, off_t(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw Error(ErrorKind::Io, name_, systemError("no se puede escribir"));
    p += n;
    size -= size_t(n);
    offset += uint64_t(n);
  }
  ownWritesSinceStat_ = true;
}

void DbfFile::writeHeaderCountAndDate() {
  unsigned char h[7];
  todayAsHeaderDate(h);
  putU32(h + 3, count_);
  writeAt(kOffUpdateDate, h, sizeof h);
  std::memcpy(date_, h, 3);
}

uint32_t DbfFile::append(std::string_view record) {
  if (record.size() != recordLength_) throw Error(ErrorKind::InvalidArgument, name_, "registro de longitud errónea");
  return appendMany(record);
}

uint32_t DbfFile::appendMany(std::string_view records) {
  checkWritable();
  if (records.empty() || records.size() % recordLength_ != 0)
    throw Error(ErrorKind::InvalidArgument, name_, "registros de longitud errónea");
  const uint64_t adding = records.size() / recordLength_;
  AppendLock lock(fd_);
  syncWithDisk();  // another program may have appended meanwhile
  if (count_ + adding > kMaxRecords) throw Error(ErrorKind::NotSupported, name_, "la tabla está llena");
  const uint32_t first = count_ + 1;
  std::string bytes;
  bytes.reserve(records.size() + 1);
  bytes.append(records);
  bytes.push_back(char(kEndOfFile));
  writeAt(headerLength_ + uint64_t(count_) * recordLength_, bytes.data(), bytes.size());  // invariant (1)
  rows_.insert(rows_.end(), records.begin(), records.end());
  count_ += uint32_t(adding);
  for (uint32_t r = first; r <= count_; ++r) deleted_ += isDeleted(r);
  writeHeaderCountAndDate();
  diskSize_ = headerLength_ + uint64_t(count_) * recordLength_ + 1;
  ++generation_;
  for (auto& [fields, tag] : tags_)
    for (uint32_t r = first; r <= count_; ++r) tag->insert(r);
  return first;
}

void DbfFile::update(uint32_t recno, std::string_view record) {
  checkWritable();
  if (recno < 1 || recno > count_) throw Error(ErrorKind::InvalidArgument, name_, "registro inexistente");
  if (record.size() != recordLength_) throw Error(ErrorKind::InvalidArgument, name_, "registro de longitud errónea");
  writeAt(headerLength_ + uint64_t(recno - 1) * recordLength_, record.data(), record.size());
  std::string old(record.size(), ' ');
  char* row = rows_.data() + size_t(recno - 1) * recordLength_;
  std::memcpy(old.data(), row, record.size());
  deleted_ -= isDeleted(recno);
  std::memcpy(row, record.data(), record.size());
  deleted_ += isDeleted(recno);
  writeHeaderCountAndDate();
  ++generation_;
  ++rewriteGeneration_;
  for (auto& [fields, tag] : tags_) tag->update(recno, old.data());
}

void DbfFile::syncWithDisk() {
  struct stat st {};
  if (stat(path_.c_str(), &st) != 0) return;  // gone: keep serving what we read
  const int64_t timeNs = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  if (uint64_t(st.st_size) == diskSize_ && timeNs == diskTimeNs_ && st.st_ino == diskInode_) return;
  if (ownWritesSinceStat_ && st.st_ino == diskInode_ && uint64_t(st.st_size) == diskSize_) {
    unsigned char h[8];
    if (pread(fd_, h, sizeof h, 0) == ssize_t(sizeof h) && getU32(h + kOffRecordCount) == count_) {
      diskTimeNs_ = timeNs;  // the change we saw is our own
      ownWritesSinceStat_ = false;
      return;
    }
  }
  if (st.st_ino != diskInode_) {
    int fd = ::open(path_.c_str(), writable_ ? O_RDWR | O_CLOEXEC : O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    ::close(fd_);
    fd_ = fd;
  }
  warnings_.clear();
  load();
  ++generation_;
  ++rewriteGeneration_;
  for (auto& [fields, tag] : tags_) tag->invalidate();
}

IndexTag& DbfFile::tag(const std::vector<int>& fieldIndexes) {
  auto& slot = tags_[fieldIndexes];
  if (!slot) {
    for (int i : fieldIndexes)
      if (i < 0 || size_t(i) >= fields_.size()) throw Error(ErrorKind::InvalidArgument, name_, "campo de índice inválido");
    slot = std::make_unique<IndexTag>(*this, fieldIndexes);
  }
  return *slot;
}

}  // namespace dbase
