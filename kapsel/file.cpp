#include "kapsel/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "kapsel/ebml.h"

namespace Kapsel {

namespace {
constexpr uint64_t kAllocationStep = 64ull << 20;
}  // namespace

// ---------------------------------------------------------------- TCache

TCache::TCache(ICacheDataProvider* provider, unsigned long numLines, unsigned long lineSize)
    : provider_(provider), lineSize_(lineSize), linesInUse_(0), lines_(numLines, nullptr), age_(0) {}

TCache::~TCache() { clear(); }

TCache::TLine* TCache::lookup(uint64_t position) {
  const uint64_t start = position - position % lineSize_;
  for (unsigned long i = 0; i < linesInUse_; ++i) {
    TLine* line = lines_[i];
    if (line->head == start) {
      line->age = ++age_;
      return line;
    }
  }
  return nullptr;
}

TCache::TLine* TCache::getLine(uint64_t position) {
  TLine* line = lookup(position);
  if (line == nullptr) {
    line = addLine(position);
    if (line == nullptr) return nullptr;
  }
  if (line->ready) return line;
  unsigned long n = lineSize_;
  line->ready = provider_ != nullptr && provider_->loadLine(line->head, &n, line->data);
  if (!line->ready) n = 0;
  // Bytes past the tail are stale; they are zeroed when the tail moves over them.
  line->tail = line->head + n;
  return line;
}

TCache::TLine* TCache::addLine(uint64_t position) {
  TLine* line;
  if (linesInUse_ >= lines_.size()) {
    unsigned long victim = 0;
    for (unsigned long i = 1; i < linesInUse_; ++i)
      if (lines_[i]->age < lines_[victim]->age) victim = i;
    line = lines_[victim];
    if (!flush(line)) return nullptr;
  } else {
    line = new TLine(lineSize_);
    lines_[linesInUse_++] = line;
  }
  line->age = ++age_;
  line->head = line->tail = position - position % lineSize_;
  line->ready = line->dirty = false;
  return line;
}

void TCache::zeroUpTo(TLine* line, uint64_t position) {
  std::memset(line->data.data() + (line->tail - line->head), 0, position - line->tail);
}

bool TCache::flush(TLine* line) {
  if (line == nullptr || !line->dirty || line->tail <= line->head || provider_ == nullptr) return true;
  // Only what changed goes back: the rest of a line read from the file is already there.
  const uint64_t from = std::min(std::max(line->dirtyFrom, line->head), line->tail);
  const bool ok = from == line->tail ||
                  provider_->save(from, static_cast<unsigned long>(line->tail - from), line->data.data() + (from - line->head));
  line->dirty = !ok;
  return ok;
}

bool TCache::flushAll() {
  bool ok = true;
  for (TLine* line : lines_) ok = flush(line) && ok;
  return ok;
}

void TCache::adjustLineSize(unsigned long numBytes) {
  if (numBytes > lineSize_ && numBytes <= 0x1000000ul)
    resize(static_cast<unsigned long>(lines_.size()), ((lineSize_ - 1 + numBytes) / lineSize_) * lineSize_);
}

unsigned long TCache::save(uint64_t position, unsigned long numBytes, const unsigned char* src) {
  adjustLineSize(numBytes);
  const uint64_t end = position + numBytes;
  unsigned long remaining = numBytes;
  for (uint64_t l = position - position % lineSize_; remaining > 0 && l < end; l += lineSize_) {
    TLine* line = getLine(l);
    if (line == nullptr || !line->ready) return 0;
    const uint64_t lineEnd = std::min<uint64_t>(l + lineSize_, end);
    const uint64_t from = std::max<uint64_t>(l, position);
    const uint64_t count = lineEnd - from;
    const uint64_t changed = std::min(from, line->tail);
    if (line->tail < from) zeroUpTo(line, from);
    if (line->tail < lineEnd) line->tail = lineEnd;
    if (count > 0) {
      line->dirtyFrom = line->dirty ? std::min(line->dirtyFrom, changed) : changed;
      line->ready = line->dirty = true;
      std::memcpy(line->data.data() + (from - l), src, count);
      src += count;
      remaining -= static_cast<unsigned long>(count);
    }
  }
  return numBytes - remaining;
}

unsigned long TCache::load(uint64_t position, unsigned long numBytes, unsigned char* dst) {
  adjustLineSize(numBytes);
  const uint64_t end = position + numBytes;
  unsigned long remaining = numBytes;
  uint64_t l = position - position % lineSize_;
  while (remaining > 0 && l < end) {
    TLine* line = getLine(l);
    if (line == nullptr || !line->ready) return 0;
    const uint64_t from = std::max<uint64_t>(l, position);
    const uint64_t to = std::min<uint64_t>(end, line->tail);
    if (to > from) {
      std::memcpy(dst, line->data.data() + (from - l), to - from);
      dst += to - from;
      remaining -= static_cast<unsigned long>(to - from);
    }
    if (line->tail != l + lineSize_) break;  // a short line is the end of the file
    l = line->tail;
  }
  return numBytes - remaining;
}

void TCache::truncate(uint64_t newSize) {
  const uint64_t t = newSize - newSize % lineSize_;
  for (unsigned long i = 0; i < linesInUse_; ++i) {
    TLine* line = lines_[i];
    if (t < line->head) {
      delete line;
      lines_[i] = lines_[linesInUse_ - 1];
      lines_[linesInUse_ - 1] = nullptr;
      --linesInUse_;
    } else if (line->head == t) {
      if (line->tail < newSize) zeroUpTo(line, newSize);
      line->tail = newSize;
    } else if (line->tail < line->head + lineSize_) {
      // The file was lengthened past this short line: all of it is now inside the file.
      zeroUpTo(line, line->head + lineSize_);
      line->tail = line->head + lineSize_;
    }
  }
}

void TCache::resize(unsigned long numLines, unsigned long lineSize) {
  if (numLines == lines_.size() && lineSize == lineSize_) return;
  clear();
  lines_.assign(numLines, nullptr);
  lineSize_ = lineSize;
}

void TCache::clear() {
  for (auto& line : lines_) {
    if (line) {
      flush(line);
      delete line;
      line = nullptr;
    }
  }
  linesInUse_ = 0;
  age_ = 0;
}

// ---------------------------------------------------------------- SharedFile

SharedFile::~SharedFile() { close(); }

bool SharedFile::open(const std::string& filename, File::AccessMode mode) {
  close();
  filename_ = filename;
  mode_ = mode;
  if (filename.empty()) return false;
  file_ = fopen_utf8(filename.c_str(), mode == File::kReadWrite ? "rb+" : "rb");
  if (file_ == nullptr) {
    if (mode != File::kReadWrite) return false;
    file_ = fopen_utf8(filename.c_str(), "wb+");
    if (file_ == nullptr) return false;
  }
  const off_t pos = ftello(file_);
  position_ = pos < 0 ? 0 : static_cast<uint64_t>(pos);
  size_ = size();
  writeError_ = false;
  streamPos_ = -1;
  cache_ = new TCache(this, 1, 4096);
  return true;
}

// One line read ahead at a time, into a buffer of its own that is then swapped into the cache.
struct SharedFile::ReadAhead {
  std::mutex lock;
  std::condition_variable changed;
  std::thread thread;
  int fd = -1;
  bool quit = false, pending = false, done = false;
  uint64_t position = 0;
  unsigned long got = 0;
  std::vector<unsigned char> buffer;

  void run() {
    std::unique_lock<std::mutex> hold(lock);
    for (;;) {
      changed.wait(hold, [this] { return quit || (pending && !done); });
      if (quit) return;
      const uint64_t at = position;
      const size_t size = buffer.size();
      unsigned char* dst = buffer.data();
      hold.unlock();
      size_t n = 0;
      while (n < size) {
        const ssize_t r = pread(fd, dst + n, size - n, static_cast<off_t>(at + n));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        n += static_cast<size_t>(r);
      }
      hold.lock();
      got = static_cast<unsigned long>(n);
      done = true;
      changed.notify_all();
    }
  }
  ~ReadAhead() {
    {
      std::lock_guard<std::mutex> hold(lock);
      quit = true;
    }
    changed.notify_all();
    if (thread.joinable()) thread.join();
  }
};

bool SharedFile::loadLine(uint64_t position, unsigned long* numBytes, std::vector<unsigned char>& line) {
  if (readAhead_ == nullptr || file_ == nullptr || *numBytes != line.size()) return load(position, numBytes, line.data());
  ReadAhead& ra = *readAhead_;
  std::unique_lock<std::mutex> hold(ra.lock);
  // The buffer is ours again once the read in flight has ended.
  ra.changed.wait(hold, [&ra] { return !ra.pending || ra.done; });
  bool ok = true;
  if (ra.pending && ra.position == position && ra.buffer.size() == line.size()) {
    line.swap(ra.buffer);
    *numBytes = ra.got;
  } else {
    hold.unlock();
    ok = load(position, numBytes, line.data());
    hold.lock();
  }
  ra.pending = ra.done = false;
  // The next line, unless it lies past the end.
  const uint64_t next = position + line.size();
  if (next < size_) {
    ra.buffer.resize(line.size());
    ra.position = next;
    ra.pending = true;
    if (!ra.thread.joinable()) ra.thread = std::thread([&ra] { ra.run(); });
    ra.changed.notify_all();
  }
  return ok;
}

void SharedFile::close() {
  delete readAhead_;
  readAhead_ = nullptr;
  if (cache_) {
    delete cache_;  // writes back every dirty line
    cache_ = nullptr;
  }
  if (file_ && allocatedTo_ > 0) {
    // Truncating to the size the file has gives back the space claimed past its end.
    struct stat st {};
    // A failed flush shows at fclose below; space not given back is only space.
    if (std::fflush(file_) == 0 && fstat(fileno(file_), &st) == 0) (void)!ftruncate(fileno(file_), st.st_size);
  }
  allocateAhead_ = false;
  allocatedTo_ = 0;
  if (file_) {
    if (std::fclose(file_) != 0) writeError_ = true;
    file_ = nullptr;
  }
  streamPos_ = -1;
  position_ = 0;
  size_ = 0;
}

uint64_t SharedFile::size() const {
  if (cache_) return size_;
  if (file_ == nullptr) return 0x7FFFFFFFFFFFFFFFull;
  const off_t here = ftello(file_);
  if (here < 0 || fseeko(file_, 0, SEEK_END) != 0) return 0x7FFFFFFFFFFFFFFFull;
  const off_t end = ftello(file_);
  if (end < 0 || fseeko(file_, here, SEEK_SET) != 0) return 0x7FFFFFFFFFFFFFFFull;
  return static_cast<uint64_t>(end);
}

bool SharedFile::write(const unsigned char* src, unsigned long numBytes) {
  if (cache_ == nullptr) return false;
  const unsigned long count = cache_->save(position_, numBytes, src);
  position_ += count;
  size_ = std::max(size_, position_);
  return count == numBytes;
}

bool SharedFile::setSize(uint64_t newSize) {
  if (file_ == nullptr) return false;
  // Truncating a file that already has this size changes nothing, and on some file systems a file truncated to
  // nothing is forced to disk when it is closed.
  if (newSize == size_) return true;
  std::fflush(file_);
  if (ftruncate(fileno(file_), static_cast<off_t>(newSize)) != 0) return false;
  allocatedTo_ = std::min(allocatedTo_, newSize);
  if (newSize < position_) position_ = newSize;
  if (cache_) cache_->truncate(newSize);
  size_ = newSize;
  return true;
}

bool SharedFile::load(uint64_t position, unsigned long* numBytes, unsigned char* dst) {
  // A line that starts at or beyond the end holds nothing yet: appending costs no read.
  if (file_ != nullptr && position >= size_) {
    *numBytes = 0;
    return true;
  }
  streamPos_ = -1;
  if (file_ == nullptr || fseeko(file_, static_cast<off_t>(position), SEEK_SET) != 0) return false;
  *numBytes = static_cast<unsigned long>(std::fread(dst, 1, *numBytes, file_));
  return true;
}

bool SharedFile::save(uint64_t position, unsigned long numBytes, const unsigned char* src) {
  if (file_ == nullptr) return false;
  // Sequential write-backs need no seek (which would cost a system call each).
  if (streamPos_ != static_cast<int64_t>(position) && fseeko(file_, static_cast<off_t>(position), SEEK_SET) != 0) {
    streamPos_ = -1;
    writeError_ = true;
    return false;
  }
  if (allocateAhead_ && position + numBytes > allocatedTo_) {
    const uint64_t from = std::max(allocatedTo_, position);
    const uint64_t step = std::max<uint64_t>(kAllocationStep, numBytes);
    // Only a hint: where the file system cannot, writing goes on without it.
    if (fallocate(fileno(file_), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(from), static_cast<off_t>(step)) == 0)
      allocatedTo_ = from + step;
    else
      allocateAhead_ = false;
  }
  // Flush now so that a full disk is seen here and not only at close.
  const bool ok = std::fwrite(src, 1, numBytes, file_) == numBytes && std::fflush(file_) == 0;
  streamPos_ = ok ? static_cast<int64_t>(position + numBytes) : -1;
  if (!ok) writeError_ = true;
  return ok;
}

bool SharedFile::peekAt(uint64_t position, unsigned long numBytes, unsigned char* dst) {
  if (file_ == nullptr) return false;
  // Cached bytes may not be in the file yet.
  if (cache_ != nullptr && numBytes > 0) {
    const TCache::TLine* first = cache_->lookup(position);
    const TCache::TLine* last = cache_->lookup(position + numBytes - 1);
    if ((first && first->ready) || (last && last->ready)) return cache_->load(position, numBytes, dst) == numBytes;
  }
  if (position + numBytes > size_) return false;
  for (unsigned long done = 0; done < numBytes;) {
    const ssize_t n = pread(fileno(file_), dst + done, numBytes - done, static_cast<off_t>(position + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<unsigned long>(n);
  }
  return true;
}

FILE* fopen_utf8(const char* path, const char* mode) {
  if (path == nullptr || *path == '\0') return nullptr;
  return std::fopen(path, mode);
}

// ---------------------------------------------------------------- File

struct File::Private {
  TSharedPtr<SharedFile> shared;
};

File::File() : d_(new Private{TSharedPtr<SharedFile>(new SharedFile)}) {}

File::File(const std::string& filename, AccessMode mode) : File() { open(filename, mode); }

File::File(const File& other) : d_(new Private{other.d_->shared}) {}

File& File::operator=(const File& other) {
  if (d_->shared.get() != other.d_->shared.get()) d_->shared = other.d_->shared;
  return *this;
}

File::~File() { delete d_; }

bool File::open(const std::string& filename, AccessMode mode) { return d_->shared->open(filename, mode); }
void File::close() { d_->shared->close(); }
bool File::isOpen() const { return d_->shared->file_ != nullptr; }
const std::string& File::filename() const { return d_->shared->filename_; }

bool File::seek(int64_t offset, PositionReference ref) {
  SharedFile& f = *d_->shared;
  uint64_t pos;
  if (ref == kRelativeToCurrent)
    pos = f.position_ + static_cast<uint64_t>(offset);
  else if (ref == kRelativeToEnd)
    pos = f.size_;  // the offset is deliberately ignored
  else
    pos = static_cast<uint64_t>(offset);
  f.position_ = pos;
  f.size_ = std::max(f.size_, pos);
  return true;
}

uint64_t File::absolutePosition() const { return d_->shared->position_; }
uint64_t File::size() const { return d_->shared->size(); }
bool File::setSize(int64_t newSize) { return d_->shared->setSize(static_cast<uint64_t>(newSize)); }

bool File::load(void* dst, unsigned long numBytes) {
  SharedFile& f = *d_->shared;
  if (f.cache_ == nullptr) return numBytes == 0;
  const unsigned long n = f.cache_->load(f.position_, numBytes, static_cast<unsigned char*>(dst));
  f.position_ += n;
  return n == numBytes;
}

unsigned long File::peek(void* dst, unsigned long numBytes) {
  SharedFile& f = *d_->shared;
  if (f.cache_ == nullptr) return 0;
  return f.cache_->load(f.position_, numBytes, static_cast<unsigned char*>(dst));
}

bool File::save(const void* src, unsigned long numBytes) {
  return d_->shared->write(static_cast<const unsigned char*>(src), numBytes);
}

void File::readAhead() {
  SharedFile& f = *d_->shared;
  if (f.file_ == nullptr || f.mode_ != kReadOnly || f.readAhead_ != nullptr) return;
  f.readAhead_ = new SharedFile::ReadAhead;
  f.readAhead_->fd = fileno(f.file_);
}

void File::allocateAhead() { d_->shared->allocateAhead_ = d_->shared->file_ != nullptr; }

bool File::peekAt(uint64_t position, unsigned long numBytes, unsigned char* dst) {
  return d_->shared->peekAt(position, numBytes, dst);
}

bool File::calcCrc32(int64_t start, int64_t numBytes, Crc32& crc) {
  if (numBytes == 0) return true;
  SharedFile& f = *d_->shared;
  if (f.cache_ == nullptr || numBytes < 0) return false;
  f.position_ = static_cast<uint64_t>(start);
  f.size_ = std::max(f.size_, f.position_);
  const unsigned long bufSize = static_cast<unsigned long>(std::min<int64_t>(numBytes, 4096));
  std::vector<unsigned char> buffer(bufSize);
  uint64_t remaining = static_cast<uint64_t>(numBytes);
  while (remaining > 0) {
    const unsigned long chunk = static_cast<unsigned long>(std::min<uint64_t>(remaining, bufSize));
    const unsigned long n = f.cache_->load(f.position_, chunk, buffer.data());
    f.position_ += n;
    if (n != chunk) return false;
    crc.compute(buffer.data(), chunk);
    remaining -= chunk;
  }
  return true;
}

TCache* File::cache() const { return d_->shared->cache_; }
bool File::hadWriteError() const { return d_->shared->writeError_; }
bool File::remove(const char* path) { return path != nullptr && std::remove(path) == 0; }

File::Seek::Seek(File& file) : file_(file), saved_(file.absolutePosition()), restore_(true) {}
File::Seek::Seek(File& file, int64_t offset, PositionReference ref) : Seek(file) { file_.seek(offset, ref); }
File::Seek::~Seek() {
  if (restore_) restorePosition();
}
bool File::Seek::seek(int64_t offset, PositionReference ref) { return file_.seek(offset, ref); }
void File::Seek::restorePosition() { file_.seek(static_cast<int64_t>(saved_), kAbsolutePosition); }

bool save(File& file, const std::vector<unsigned char>& bytes) {
  return file.save(bytes.data(), static_cast<unsigned long>(bytes.size()));
}

// ---------------------------------------------------------------- FileStorage

bool FileStorage::Receipt::save(const unsigned char* data, unsigned long numBytes) {
  File::Seek guard(file_, static_cast<int64_t>(position_), File::kAbsolutePosition);
  const bool ok = file_.save(data, numBytes);
  if (ok) numBytes_ = std::max<uint64_t>(numBytes_, numBytes);
  return ok;
}

bool FileStorage::Receipt::load(unsigned char* data) {
  File::Seek guard(file_, static_cast<int64_t>(position_), File::kAbsolutePosition);
  return file_.load(data, static_cast<unsigned long>(numBytes_));
}

bool FileStorage::Receipt::peek(unsigned char* data, unsigned long numBytes) {
  return numBytes <= numBytes_ && file_.peekAt(position_, numBytes, data);
}

bool FileStorage::Receipt::calcCrc32(Crc32& crc, const ReceiptPtr& receiptSkip) {
  File::Seek guard(file_);
  const uint64_t p = position_, e = position_ + numBytes_;
  uint64_t s = p, l = 0;
  if (receiptSkip) {
    s = receiptSkip->position();
    l = receiptSkip->numBytes();
  }
  const uint64_t firstStart = std::min(s, p);
  if (!file_.calcCrc32(static_cast<int64_t>(firstStart), static_cast<int64_t>(s - firstStart), crc)) return false;
  const uint64_t secondStart = std::min(e, s + l);
  return file_.calcCrc32(static_cast<int64_t>(secondStart), static_cast<int64_t>(e - secondStart), crc);
}

ReceiptPtr FileStorage::Receipt::receipt(uint64_t offset, uint64_t numBytes) const {
  if (offset + numBytes > numBytes_) return ReceiptPtr();
  return ReceiptPtr(new Receipt(file_, position_ + offset, numBytes));
}

ReceiptPtr FileStorage::receipt() const { return ReceiptPtr(new Receipt(file_, file_.absolutePosition(), 0)); }

ReceiptPtr FileStorage::save(const unsigned char* data, unsigned long numBytes) {
  ReceiptPtr r(new Receipt(file_, file_.absolutePosition(), 0));
  if (!file_.save(data, numBytes)) return ReceiptPtr();
  r->add(numBytes);
  return r;
}

ReceiptPtr FileStorage::load(unsigned char* data, unsigned long numBytes) {
  ReceiptPtr r(new Receipt(file_, file_.absolutePosition(), 0));
  if (!file_.load(data, numBytes)) return ReceiptPtr();
  r->add(numBytes);
  return r;
}

unsigned long FileStorage::peek(unsigned char* data, unsigned long numBytes) { return file_.peek(data, numBytes); }

uint64_t FileStorage::skip(uint64_t numBytes) {
  file_.seek(static_cast<int64_t>(numBytes), File::kRelativeToCurrent);
  return numBytes;
}

}  // namespace Kapsel
