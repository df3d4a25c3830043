// Reading the outbox's records straight from the pages of a damaged database file, without
// SQLite's B-tree: a damaged root or interior page hides every leaf below it from a seek, but
// the leaves themselves are still whole. Owns the file format's parsing (header, freelist,
// write-ahead log frames, table-leaf cells, overflow chains) and nothing else.
//
// A page is taken as in use when it lies within the database's size and is not on the
// freelist; the write-ahead log's committed frames replace the pages they hold. Anything that
// does not parse exactly as the outbox's rows (two columns: the number as the row id, the
// content as a blob) is left alone.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/AtomicFile.h"
#include "platform/ParentOnlyDescriptor.h"
#include "platform/posix/OutboxSalvage.h"

namespace quorvel::platform {
namespace {

struct PageScan {
  // False when the pages in use cannot be told from the free ones (the freelist or the
  // database's size cannot be read): the records found are then not to be used, since a freed
  // page still holds records that were answered and removed.
  bool trusted = false;
  std::vector<OutboxRecord> records;  // by number, one per number
  // Numbers whose cell is in use but whose content cannot be read whole (an overflow page
  // overwritten): SQLite may still hand such content back, wrong.
  std::set<std::int64_t> damaged;
  std::uint64_t leaves = 0;           // table-leaf pages read
  std::uint64_t unreadablePages = 0;  // in use, but neither a page of the table nor free
  std::uint64_t missingPages = 0;     // named by the database's size, beyond the file's end
};

using FileBytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kTableLeaf = 13;
constexpr std::uint8_t kTableInterior = 5;
constexpr std::size_t kFileHeader = 100;
constexpr std::size_t kWalHeader = 32;
constexpr std::size_t kFrameHeader = 24;
// Far beyond any outbox: a size read from a damaged header past it is not believed.
constexpr std::uint32_t kMaxPages = 1U << 24;

std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         p[3];
}

std::uint32_t be16(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 8) | p[1];
}

bool validPageSize(std::uint32_t size) {
  return size >= 512 && size <= 65536 && (size & (size - 1)) == 0;
}

// A variable-length integer of the file format; nullopt when it runs past `end`.
std::optional<std::uint64_t> varint(const std::uint8_t*& p, const std::uint8_t* end) {
  std::uint64_t value = 0;
  for (int i = 0; i < 9; ++i) {
    if (p >= end)
      return std::nullopt;
    const std::uint8_t byte = *p++;
    if (i == 8)
      return (value << 8) | byte;
    value = (value << 7) | (byte & 0x7f);
    if ((byte & 0x80) == 0)
      return value;
  }
  return value;
}

// The database as its file and committed log frames show it: page images by number. Pages, the
// file's and the log's alike, are read when asked for and kept until forget(), so that a
// damaged file and log of any size cost the memory of the pages in use at once, not of the
// whole file (a 413 MB log read whole took as much memory).
class PageImage {
 public:
  explicit PageImage(const std::string& path)
      : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {
    struct stat st {};
    if (fd_ >= 0 && ::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode))
      fileSize_ = static_cast<std::uint64_t>(st.st_size);
    std::array<std::uint8_t, kFileHeader> header{};
    if (fileSize_ >= kFileHeader && readAllAt(fd_, header.data(), header.size(), 0)) {
      named_ = std::memcmp(header.data(), "SQLite format 3", 16) == 0;
      pageSize_ = named_ ? be16(&header[16]) : 0;  // else the log's, or the outbox's 4096
    }
    pageSize_ = pageSize_ == 1 ? 65536 : pageSize_;
    readLog(path + "-wal");
    if (!validPageSize(pageSize_))
      pageSize_ = 4096;
  }

  std::uint32_t pageSize() const { return pageSize_; }
  std::uint32_t logSize() const { return logSize_; }
  // Whether the header still starts with the format's name: if not, its other fixed fields
  // (the page size, the bytes reserved at each page's end) are not believed either.
  bool named() const { return named_; }
  std::uint32_t highestLogged() const { return logged_.empty() ? 0 : logged_.rbegin()->first; }
  std::uint32_t filePages() const {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(fileSize_ / pageSize_, UINT32_MAX));
  }

  PageImage(const PageImage&) = delete;
  PageImage& operator=(const PageImage&) = delete;
  ~PageImage() {
    for (const int fd : {fd_, logFd_}) {
      if (fd >= 0)
        ::close(fd);
    }
  }

  // Page `number` (from 1), or nullptr when neither the file nor the log holds it whole. Valid
  // until forget().
  const std::uint8_t* page(std::uint32_t number) {
    if (number < 1)
      return nullptr;
    int fd = fd_;
    std::uint64_t at = std::uint64_t{number - 1} * pageSize_;
    if (const auto it = logged_.find(number); it != logged_.end()) {
      fd = logFd_;
      at = it->second;
    } else if (at + pageSize_ > fileSize_) {
      return nullptr;
    }
    auto [cached, added] = read_.try_emplace(number);
    if (added) {
      cached->second.resize(pageSize_);
      if (!readAllAt(fd, cached->second.data(), pageSize_, static_cast<off_t>(at))) {
        read_.erase(cached);
        return nullptr;
      }
    }
    return cached->second.data();
  }

  void forget() { read_.clear(); }

 private:
  // The frames of every committed transaction, checked as SQLite checks them (salts and the
  // running checksum): frames of an older log generation or of an unfinished one are ignored.
  // Read a frame at a time: only where each committed page's newest image lies is kept.
  void readLog(const std::string& path) {
    // A link is followed: the log it leads to holds the removals the file does not, and without
    // them answered records would come back. Only a regular file is read.
    logFd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat st {};
    if (logFd_ < 0 || ::fstat(logFd_, &st) != 0 || !S_ISREG(st.st_mode))
      return;
    const auto length = static_cast<std::uint64_t>(st.st_size);
    std::array<std::uint8_t, kWalHeader> header{};
    if (length < kWalHeader || !readAllAt(logFd_, header.data(), header.size(), 0) ||
        (be32(&header[0]) & ~1U) != 0x377f0682)
      return;
    const bool bigEndian = (be32(&header[0]) & 1U) != 0;
    const std::uint32_t size = be32(&header[8]) == 1 ? 65536 : be32(&header[8]);
    if (!validPageSize(size) || (validPageSize(pageSize_) && size != pageSize_))
      return;
    pageSize_ = size;
    std::uint32_t s0 = 0;
    std::uint32_t s1 = 0;
    checksum(bigEndian, header.data(), 24, s0, s1);
    if (s0 != be32(&header[24]) || s1 != be32(&header[28]))
      return;
    std::map<std::uint32_t, std::uint64_t> pending;
    FileBytes frame(kFrameHeader + size);
    for (std::uint64_t at = kWalHeader; at + frame.size() <= length; at += frame.size()) {
      if (!readAllAt(logFd_, frame.data(), frame.size(), static_cast<off_t>(at)) ||
          std::memcmp(&frame[8], &header[16], 8) != 0)
        break;
      checksum(bigEndian, frame.data(), 8, s0, s1);
      checksum(bigEndian, &frame[kFrameHeader], size, s0, s1);
      if (s0 != be32(&frame[16]) || s1 != be32(&frame[20]))
        break;
      pending[be32(frame.data())] = at + kFrameHeader;
      if (const std::uint32_t commit = be32(&frame[4]); commit != 0) {
        for (const auto& [number, offset] : pending)
          logged_[number] = offset;
        pending.clear();
        logSize_ = commit;
      }
    }
  }

  static void checksum(bool bigEndian, const std::uint8_t* data, std::size_t n, std::uint32_t& s0,
                       std::uint32_t& s1) {
    const auto word = [bigEndian](const std::uint8_t* p) {
      return bigEndian ? be32(p)
                       : (std::uint32_t{p[3]} << 24) | (std::uint32_t{p[2]} << 16) |
                             (std::uint32_t{p[1]} << 8) | p[0];
    };
    for (std::size_t i = 0; i + 8 <= n; i += 8) {
      s0 += word(data + i) + s1;
      s1 += word(data + i + 4) + s0;
    }
  }

  int fd_ = -1;
  std::uint64_t fileSize_ = 0;
  bool named_ = false;
  int logFd_ = -1;
  std::map<std::uint32_t, FileBytes> read_;  // pages read since the last forget()
  // Page number -> where in the log its newest committed image lies.
  std::map<std::uint32_t, std::uint64_t> logged_;
  std::uint32_t pageSize_ = 0;
  std::uint32_t logSize_ = 0;  // the database's size in pages after the last commit logged
};

class Scanner {
 public:
  Scanner(const std::string& path, const std::vector<OutboxRecord>& readAlready)
      : image_(path), readAlready_(readAlready) {}

  PageScan run() {
    PageScan out;
    const std::uint8_t* first = image_.page(1);
    if (first == nullptr)
      return out;
    // The outbox reserves no bytes at a page's end: a damaged header's count is not read.
    usable_ = image_.pageSize() - (image_.named() ? first[20] : 0);
    if (usable_ < 480 || !readSize(first) || !readFreelist(first))
      return out;
    out.trusted = true;
    // Pages beyond what the file and the log hold (a file cut short, or a damaged size field)
    // are counted, not read one by one.
    const std::uint32_t held = std::max(image_.filePages(), image_.highestLogged());
    out.missingPages = pages_ > held ? pages_ - held : 0;
    pages_ = std::min(pages_, held);
    std::map<std::int64_t, std::string> found;
    std::set<std::uint32_t> unreadable;
    // Where the size comes from the file's length alone (the header's is not believed), zeroed
    // pages after the last written one are the file's unused end; within a size the database
    // recorded, every page is in use and a zeroed one is lost.
    std::uint32_t lastWritten = sizeFromFile_ ? 0 : pages_;
    for (std::uint32_t number = 2; number <= pages_; ++number) {
      if (free_.count(number) > 0)
        continue;
      const std::uint8_t* page = image_.page(number);
      if (page == nullptr) {
        unreadable.insert(number);  // past the end of a file cut short
        continue;
      }
      const bool zeroed =
          std::all_of(page, page + image_.pageSize(), [](std::uint8_t byte) { return byte == 0; });
      lastWritten = zeroed ? lastWritten : std::max(lastWritten, number);
      if (page[0] == kTableLeaf && readLeaf(page, found))
        ++out.leaves;
      else if (page[0] != kTableInterior)
        unreadable.insert(number);  // damaged, or an overflow page (told apart below)
      image_.forget();  // the leaf and its overflow chain: nothing of them is needed again
    }
    for (const auto number : overflow_)
      unreadable.erase(number);
    unreadable.erase(unreadable.upper_bound(lastWritten), unreadable.end());
    out.unreadablePages = unreadable.size();
    for (auto& [id, content] : found) {
      damaged_.erase(id);
      out.records.push_back({id, std::move(content)});
    }
    out.damaged = std::move(damaged_);
    return out;
  }

 private:
  // The size recorded in the header is believed only when the header says it is current;
  // the log's last commit knows better still.
  bool readSize(const std::uint8_t* first) {
    pages_ = image_.logSize();
    if (pages_ == 0 && be32(first + 92) == be32(first + 24))
      pages_ = be32(first + 28);
    sizeFromFile_ = pages_ == 0;
    if (sizeFromFile_)
      pages_ = image_.filePages();
    return pages_ >= 1 && pages_ <= kMaxPages &&
           (first[100] == kTableLeaf || first[100] == kTableInterior);
  }

  // Every trunk and leaf of the freelist, which must add up to the count the header gives: a
  // damaged trunk would hide freed pages, whose old records must not come back.
  bool readFreelist(const std::uint8_t* first) {
    const std::uint32_t count = be32(first + 36);
    std::uint32_t trunk = be32(first + 32);
    if (count >= pages_)
      return false;
    const auto add = [this](std::uint32_t number) {
      return number >= 2 && number <= pages_ && free_.insert(number).second;
    };
    while (trunk != 0) {
      const std::uint8_t* page = image_.page(trunk);
      if (free_.size() >= count || page == nullptr || !add(trunk))
        return false;
      const std::uint32_t leaves = be32(page + 4);
      if (leaves > usable_ / 4 - 2 || free_.size() + leaves > count)
        return false;
      for (std::uint32_t i = 0; i < leaves; ++i) {
        if (!add(be32(page + 8 + std::size_t{4} * i)))
          return false;
      }
      trunk = be32(page);
    }
    return free_.size() == count;
  }

  // The cells of one table-leaf page, each kept only when it is a whole outbox row. False when
  // the page's header does not hold together.
  bool readLeaf(const std::uint8_t* page, std::map<std::int64_t, std::string>& found) {
    const std::uint32_t cells = be16(page + 3);
    if (8 + 2 * cells > usable_)
      return false;
    for (std::uint32_t i = 0; i < cells; ++i) {
      const std::uint32_t at = be16(page + 8 + std::size_t{2} * i);
      if (at < 8 + 2 * cells || at >= usable_)
        continue;
      std::string payload;
      const std::uint8_t* p = page + at;
      const std::uint8_t* end = page + usable_;
      const auto size = varint(p, end);
      const auto rowid = varint(p, end);
      if (!size || !rowid)
        continue;
      const auto id = static_cast<std::int64_t>(*rowid);
      if (!readPayload(p, end, *size, payload)) {
        damaged_.insert(id);
        continue;
      }
      if (auto content = outboxContent(payload))
        found.emplace(id, readAlreadyHas(id) ? std::string() : std::move(*content));
    }
    return true;
  }

  // A cell's payload: what the page holds, then its overflow chain.
  bool readPayload(const std::uint8_t* p, const std::uint8_t* end, std::uint64_t size,
                   std::string& payload) {
    const std::uint64_t most = usable_ - 35;
    std::uint64_t local = size;
    if (size > most) {
      const std::uint64_t least = (usable_ - 12) * 32 / 255 - 23;
      const std::uint64_t k = least + (size - least) % (usable_ - 4);
      local = k <= most ? k : least;
    }
    if (p + local + (local < size ? 4 : 0) > end)
      return false;
    payload.assign(reinterpret_cast<const char*>(p), local);
    if (local == size)
      return true;
    std::uint32_t next = be32(p + local);
    std::vector<std::uint32_t> chain;
    while (payload.size() < size) {
      const std::uint8_t* page = image_.page(next);
      if (next < 2 || next > pages_ || free_.count(next) > 0 || page == nullptr ||
          chain.size() > pages_)
        return false;
      chain.push_back(next);
      const std::uint64_t part = std::min<std::uint64_t>(usable_ - 4, size - payload.size());
      payload.append(reinterpret_cast<const char*>(page + 4), part);
      next = be32(page);
    }
    // A chain ends on its last page: anything else says a page of it was overwritten, and the
    // content read is not the record's.
    if (next != 0)
      return false;
    overflow_.insert(chain.begin(), chain.end());
    return true;
  }

  // The content of an outbox row's record: a NULL for the number (it is the row id), then a
  // blob (or text) that fills the rest exactly.
  static std::optional<std::string> outboxContent(const std::string& payload) {
    const auto* begin = reinterpret_cast<const std::uint8_t*>(payload.data());
    const auto* end = begin + payload.size();
    const std::uint8_t* p = begin;
    const auto headerSize = varint(p, end);
    if (!headerSize || *headerSize > payload.size())
      return std::nullopt;
    const auto id = varint(p, end);
    const auto content = varint(p, end);
    if (!id || !content || *id != 0 || *content < 12 || p != begin + *headerSize)
      return std::nullopt;
    const std::uint64_t length = (*content - 12) / 2;
    if (*headerSize + length != payload.size())
      return std::nullopt;
    return payload.substr(*headerSize);
  }

  bool readAlreadyHas(std::int64_t id) const {
    return std::binary_search(readAlready_.begin(), readAlready_.end(), id,
                              [](const auto& a, const auto& b) { return idOf(a) < idOf(b); });
  }
  static std::int64_t idOf(std::int64_t id) { return id; }
  static std::int64_t idOf(const OutboxRecord& record) { return record.id; }

  PageImage image_;
  const std::vector<OutboxRecord>& readAlready_;
  bool sizeFromFile_ = false;
  std::uint32_t usable_ = 0;
  std::uint32_t pages_ = 0;
  std::set<std::uint32_t> free_;
  std::set<std::uint32_t> overflow_;
  std::set<std::int64_t> damaged_;
};

// Every record on the table-leaf pages in use in the database at `path`, as its committed
// write-ahead log (`path` + "-wal") shows them: pages on the freelist, past the database's
// size, and cells no longer in a page's cell-pointer array are never read. Records in
// `readAlready` (by number) are found with an empty content: whose copy wins is the caller's
// choice, and a large salvage is not held twice.
PageScan scanPages(const std::string& path, const std::vector<OutboxRecord>& readAlready) {
  try {
    return Scanner(path, readAlready).run();
  } catch (...) {
    return {};  // out of memory: nothing trusted
  }
}

// SQLite reads a table in its numbers' order, unless a damaged interior page misleads it: then
// the records are put in order, and of one number read twice the later read is kept.
void putInOrder(std::vector<OutboxRecord>& records) {
  const auto byNumber = [](const OutboxRecord& a, const OutboxRecord& b) { return a.id < b.id; };
  if (std::adjacent_find(records.begin(), records.end(), [](const auto& a, const auto& b) {
        return a.id >= b.id;
      }) == records.end())
    return;
  std::stable_sort(records.begin(), records.end(), byNumber);
  auto kept = records.begin();
  for (auto& record : records) {
    if (kept == records.begin() || std::prev(kept)->id != record.id)
      ++kept;  // else it replaces the earlier read of its number
    if (auto& into = *std::prev(kept); &into != &record)
      into = std::move(record);
  }
  records.erase(kept, records.end());
}

}  // namespace

std::optional<std::uint32_t> logPageSize(const std::string& log) {
  const ParentOnlyDescriptor in(::open(log.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  std::array<std::uint8_t, 12> header{};
  struct stat st {};
  if (in.get() < 0 || ::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
      !readAllAt(in.get(), header.data(), header.size(), 0) ||
      (be32(&header[0]) & ~1U) != 0x377f0682)
    return std::nullopt;
  const std::uint32_t size = be32(&header[8]) == 1 ? 65536 : be32(&header[8]);
  return validPageSize(size) ? std::optional(size) : std::nullopt;
}

bool completeFromPages(const std::string& path, Salvage& salvage) {
  putInOrder(salvage.records);
  PageScan scan = scanPages(path, salvage.records);
  if (!scan.trusted)
    return false;
  // Both lists are by number: merged in one pass, each content moved, never copied, so that a
  // large salvage is held once (a 300 MB file took 656 MB with a copy). Nothing is moved before
  // the room for the result is had.
  std::vector<OutboxRecord> records;
  try {
    records.reserve(scan.records.size() + salvage.records.size());
  } catch (...) {
    return true;  // out of memory: what seeking read stands
  }
  auto fromPages = scan.records.begin();
  const auto pagesEnd = scan.records.end();
  for (auto& read : salvage.records) {
    for (; fromPages != pagesEnd && fromPages->id < read.id; ++fromPages)
      records.push_back(std::move(*fromPages));
    // SQLite's copy goes (the scan kept no content of what it read), unless the scan found
    // the record's overflow pages overwritten and no whole cell of it.
    const bool inScan = fromPages != pagesEnd && fromPages->id == read.id;
    if (inScan)
      ++fromPages;
    if (inScan || scan.damaged.count(read.id) == 0)
      records.push_back(std::move(read));
  }
  for (; fromPages != pagesEnd; ++fromPages)
    records.push_back(std::move(*fromPages));
  salvage.records = std::move(records);
  // A page that could not be read held about as many records as a leaf does on average.
  const std::uint64_t perLeaf =
      scan.leaves == 0 ? 1 : std::max<std::uint64_t>(1, salvage.records.size() / scan.leaves);
  salvage.lost =
      std::max<std::uint64_t>(salvage.gaps.empty() ? 0 : 1, scan.unreadablePages * perLeaf);
  // Bounded as a gap estimate is: a size field damaged to a huge number says nothing of the
  // records lost.
  constexpr std::uint64_t kMostMissing = 100'000;
  salvage.lost += std::min(scan.missingPages * perLeaf, kMostMissing);
  return true;
}

}  // namespace quorvel::platform
