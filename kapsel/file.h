#pragma once
// Files shared between handles, with a write-back line cache, and the file store.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kapsel/shared_ptr.h"
#include "kapsel/storage.h"

namespace Kapsel {

class Crc32;

class ICacheDataProvider {
 public:
  virtual ~ICacheDataProvider() = default;
  virtual bool load(uint64_t position, unsigned long* numBytes, unsigned char* dst) = 0;
  virtual bool save(uint64_t position, unsigned long numBytes, const unsigned char* src) = 0;
  // A whole cache line; a provider that read it ahead may swap its own buffer (of the same size) in.
  virtual bool loadLine(uint64_t position, unsigned long* numBytes, std::vector<unsigned char>& line) {
    return load(position, numBytes, line.data());
  }
};

class TCache {
 public:
  struct TLine {
    explicit TLine(unsigned long lineSize) : data(lineSize, 0) {}
    std::vector<unsigned char> data;
    uint64_t head = 0xFFFFFFFFull;
    uint64_t tail = 0xFFFFFFFFull;
    uint64_t age = 0;
    bool ready = false;
    bool dirty = false;
    uint64_t dirtyFrom = 0;  // first byte changed since the line was last written back
  };

  TCache(ICacheDataProvider* provider, unsigned long numLines, unsigned long lineSize);
  ~TCache();
  TCache(const TCache&) = delete;
  TCache& operator=(const TCache&) = delete;

  unsigned long save(uint64_t position, unsigned long numBytes, const unsigned char* src);
  unsigned long load(uint64_t position, unsigned long numBytes, unsigned char* dst);
  void truncate(uint64_t newSize);
  void resize(unsigned long numLines, unsigned long lineSize);
  void clear();
  bool flush(TLine* line);
  // Writes every dirty line and keeps the lines.
  bool flushAll();
  TLine* lookup(uint64_t position);

  unsigned long lineSize() const { return lineSize_; }
  unsigned long linesInUse() const { return linesInUse_; }
  unsigned long maxLines() const { return static_cast<unsigned long>(lines_.size()); }

 private:
  TLine* getLine(uint64_t position);
  TLine* addLine(uint64_t position);
  void adjustLineSize(unsigned long numBytes);
  // Zeroes the line from its tail up to `position` (a file position inside the line).
  void zeroUpTo(TLine* line, uint64_t position);

  ICacheDataProvider* provider_;
  unsigned long lineSize_;
  unsigned long linesInUse_;
  std::vector<TLine*> lines_;
  uint64_t age_;
};

class SharedFile;

class File {
 public:
  enum AccessMode { kReadOnly = 0, kReadWrite = 1 };
  enum PositionReference { kAbsolutePosition = 0, kRelativeToCurrent = 1, kRelativeToEnd = 2 };

  // Moves the file position and puts it back when the guard ends.
  class Seek {
   public:
    explicit Seek(File& file);
    Seek(File& file, int64_t offset, PositionReference ref);
    ~Seek();
    Seek(const Seek&) = delete;
    Seek& operator=(const Seek&) = delete;
    bool seek(int64_t offset, PositionReference ref);
    uint64_t absolutePosition() const { return saved_; }
    void doNotRestore() { restore_ = false; }
    void doRestore() { restore_ = true; }
    void restorePosition();

   private:
    File& file_;
    uint64_t saved_;
    bool restore_;
  };

  File();
  File(const std::string& filename, AccessMode mode);
  File(const File& other);
  File& operator=(const File& other);
  ~File();

  bool open(const std::string& filename, AccessMode mode);
  void close();
  bool isOpen() const;
  const std::string& filename() const;
  bool seek(int64_t offset, PositionReference ref = kAbsolutePosition);
  uint64_t absolutePosition() const;
  uint64_t size() const;
  bool setSize(int64_t newSize);
  bool load(void* dst, unsigned long numBytes);
  unsigned long peek(void* dst, unsigned long numBytes);
  bool save(const void* src, unsigned long numBytes);
  // A few bytes at `position`, from the cache when it holds them, else by one read that fills no cache line.
  bool peekAt(uint64_t position, unsigned long numBytes, unsigned char* dst);
  bool calcCrc32(int64_t start, int64_t numBytes, Crc32& crc);
  TCache* cache() const;
  // For files written front to back: space past the end is claimed in large steps as writing reaches it (the file
  // system then allocates once a step rather than once a page); what is left unused is given back at close.
  void allocateAhead();
  // For read-only files read front to back: the line after each one loaded is read on a thread of its own meanwhile.
  void readAhead();
  // True after any write-back or write failed since opening (a full disk, say).
  bool hadWriteError() const;

  static bool remove(const char* path);

 private:
  struct Private;
  Private* d_;
};

class SharedFile : public ICacheDataProvider {
 public:
  SharedFile() = default;
  ~SharedFile() override;
  SharedFile(const SharedFile&) = delete;
  SharedFile& operator=(const SharedFile&) = delete;

  bool open(const std::string& filename, File::AccessMode mode);
  void close();
  uint64_t size() const;
  bool write(const unsigned char* src, unsigned long numBytes);
  bool setSize(uint64_t newSize);
  bool load(uint64_t position, unsigned long* numBytes, unsigned char* dst) override;
  bool save(uint64_t position, unsigned long numBytes, const unsigned char* src) override;
  bool peekAt(uint64_t position, unsigned long numBytes, unsigned char* dst);
  bool loadLine(uint64_t position, unsigned long* numBytes, std::vector<unsigned char>& line) override;

  struct ReadAhead;
  ReadAhead* readAhead_ = nullptr;
  std::string filename_;
  File::AccessMode mode_ = File::kReadOnly;
  FILE* file_ = nullptr;
  uint64_t position_ = 0;
  uint64_t size_ = 0;
  TCache* cache_ = nullptr;
  bool writeError_ = false;
  bool allocateAhead_ = false;
  uint64_t allocatedTo_ = 0;  // space claimed up to here (allocateAhead)
  // Where the stream stands after our last write; -1 when unknown or after a read.
  int64_t streamPos_ = -1;
};

FILE* fopen_utf8(const char* path, const char* mode);
bool save(File& file, const std::vector<unsigned char>& bytes);

class FileStorage : public IStorage {
 public:
  class Receipt : public IReceipt {
   public:
    Receipt(const File& file, uint64_t position, uint64_t numBytes)
        : file_(file), position_(position), numBytes_(numBytes) {}
    uint64_t position() const override { return position_; }
    uint64_t numBytes() const override { return numBytes_; }
    IReceipt& setNumBytes(uint64_t n) override { numBytes_ = n; return *this; }
    IReceipt& add(uint64_t n) override { numBytes_ += n; return *this; }
    bool save(const unsigned char* data, unsigned long numBytes) override;
    bool load(unsigned char* data) override;
    bool peek(unsigned char* data, unsigned long numBytes) override;
    bool calcCrc32(Crc32& crc, const ReceiptPtr& receiptSkip) override;
    ReceiptPtr receipt(uint64_t offset, uint64_t numBytes) const override;

   private:
    mutable File file_;
    uint64_t position_;
    uint64_t numBytes_;
  };

  FileStorage() : file_() {}
  FileStorage(const std::string& filename, File::AccessMode mode) : file_(filename, mode) {}

  ReceiptPtr receipt() const override;
  ReceiptPtr save(const unsigned char* data, unsigned long numBytes) override;
  ReceiptPtr load(unsigned char* data, unsigned long numBytes) override;
  unsigned long peek(unsigned char* data, unsigned long numBytes) override;
  uint64_t skip(uint64_t numBytes) override;

  File& file() { return file_; }
  const File& file() const { return file_; }

 private:
  mutable File file_;
};

}  // namespace Kapsel
