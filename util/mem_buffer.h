// CMemBuffer: an in-memory file. A growable byte buffer with a position and a
// length, read and written like a file, plus length-prefixed string records.
//
// Storage is tracked global memory (platform/global_memory.h), so a detached
// buffer can be handed on as a global-memory block and freed with GlobalFree.
//
// Layout after the virtual-table pointer: grow-by, position, capacity, length
// (unsigned 32-bit each), the buffer, the auto-delete flag, the memory handle.
// The virtual operations are declared in their slot order and every internal
// step goes through them, so a derived class may replace the allocation
// (Alloc, Realloc, Free, GrowFile) or the I/O.
//
// Invariants kept by the class itself: length <= capacity; capacity is 0 while
// there is no buffer. The position may pass the length after a seek (never the
// capacity). Nothing throws or prints; failures are 0/false results, and a
// failed growth leaves the buffer as it was.
#pragma once

class CMemBuffer {
 public:
  // Empty, auto-delete on, no handle. Callers in this module always pass their
  // own step; 1024 bytes is a middle ground for small records.
  explicit CMemBuffer(unsigned int growBy = 1024);
  // Takes over the caller's buffer as Attach does.
  CMemBuffer(unsigned char* buffer, unsigned int size, signed char autoDelete, unsigned int growBy);
  CMemBuffer(const CMemBuffer&) = delete;
  CMemBuffer& operator=(const CMemBuffer&) = delete;

 protected:
  // ---- Virtual slots, in this order ---------------------------------------

  // A new GlobalAlloc block (flags 2, not zeroed) of `size` bytes, remembered
  // as the handle; its locked address, or 0 (the handle is then unchanged).
  virtual unsigned char* Alloc(unsigned int size);
  // Resizes the block behind the stored handle (the argument is not used). No
  // handle, as for an attached buffer, or a failed resize -> 0, and the old
  // block stays valid. Otherwise the new handle is stored and locked.
  virtual unsigned char* Realloc(unsigned char* buffer, unsigned int size);
  // Null -> nothing. Without a handle the buffer itself goes to GlobalFree, so
  // an attached auto-delete buffer must be a global-memory block.
  virtual void Free(unsigned char* buffer);
  // Makes the capacity cover `needed` bytes: the old capacity plus the fewest
  // grow-by steps that reach it. True at once when it is already covered;
  // false with grow-by 0, when the stepped capacity would pass 32 bits (it is
  // never wrapped to a small size), or when the storage cannot be had, and
  // then nothing changes. Uses Realloc when a buffer exists, else Alloc.
  virtual bool GrowFile(unsigned int needed);

 public:
  // Closes when a buffer exists (as the destructor runs this is the base
  // Close and Free: a class that replaces Free should Close in its own
  // destructor), then zeroes grow-by, position, capacity and length.
  virtual ~CMemBuffer();
  virtual unsigned int GetPosition() const;
  // Origin 0 counts from the start, 1 from the position, 2 from the end (and
  // takes no positive offset). A refused seek (other origin, positive offset
  // from the end, a target below 0 or past 32 bits) returns the unchanged
  // position. A target past the length reserves capacity up to it through
  // GrowFile without changing the length; when that fails the target becomes
  // the length. Returns the new position.
  virtual unsigned int Seek(int offset, int origin);
  // Grows the capacity when needed (false if that fails, nothing changed),
  // pulls the position back to the new length if it was beyond, and sets the
  // length. Bytes between the old and a larger new length are not cleared.
  virtual bool SetLength(unsigned int newLength);
  // Copies min(count, length - position) bytes and advances the position;
  // returns the number copied. Count 0, null buffer, or position at or past
  // the length -> 0. A count that would overflow the position reads the rest.
  virtual unsigned int Read(void* buffer, unsigned int count);
  // Count 0, null buffer, or position + count past 32 bits -> 0 with nothing
  // touched. Grows the capacity to position + count when needed (failure ->
  // 0), copies, advances the position, raises the length to it if passed, and
  // returns count. A gap left by seeking past the end is not cleared.
  virtual unsigned int Write(const void* buffer, unsigned int count);
  // Position, capacity and length become 0; the buffer is handed to Free when
  // auto-delete is on; buffer and handle become null.
  virtual void Close();
  virtual unsigned int GetLength() const;

  // ---- Ownership -----------------------------------------------------------

  // Takes over `buffer` of `size` bytes: position 0, capacity = size, no
  // handle, and the length is `size` with grow-by 0 (the contents are the
  // file) or 0 otherwise (an empty file over a reusable buffer). Without a
  // handle such a buffer cannot be resized, so it never grows past `size`. A
  // buffer held before is not released. A null buffer attaches as an empty
  // one of capacity 0. Returns the new length.
  unsigned int Attach(unsigned char* buffer, unsigned int size, signed char autoDelete,
                      unsigned int growBy);
  // Returns the buffer and forgets it: position, capacity, length, buffer and
  // handle become 0; grow-by and auto-delete stay. The caller owns the memory
  // (a global-memory block unless it came in through Attach).
  unsigned char* Detach();
  // A new GlobalAlloc block (flags 0) holding the first length bytes, after
  // which the buffer is closed; the caller frees it with GlobalFree. Null if
  // the block cannot be had, and then nothing is closed.
  void* DetachEx();

  // Bytes available in the buffer.
  unsigned int GetCapacity() const { return m_nCapacity; }

  // ---- String records --------------------------------------------------------
  //
  // A record is a 4-byte length L, an unsigned 32-bit value in the machine's
  // byte order, followed by L bytes of text with no terminator.

  // The characters of `text`, without prefix or terminator; true when all
  // were written. A null text writes nothing and gives false.
  bool WriteStringContent(const char* text);
  // A record of `length` bytes of `text`. False when the prefix did not go out
  // whole; true for length 0 (text may then be null); otherwise true when all
  // bytes were written (a prefix already written stays). A null text with a
  // nonzero length is refused with false before anything is written.
  bool WriteString(const char* text, unsigned int length);
  // A record of strlen(text) bytes; a null text writes an empty record.
  bool WriteString(const char* text);
  // Reads one record. maxLength -1 means unbounded.
  //  - False when 4 prefix bytes could not be read.
  //  - Unbounded and L = 0: true, nothing else happens (*text untouched).
  //  - *text null: allowed only unbounded with offset 0 (else false); *text
  //    becomes a zero-filled GlobalAlloc block of L + 1 bytes holding the text
  //    and a terminator. The caller frees it with GlobalFree.
  //  - Bounded with a buffer: min(maxLength, L) bytes go to *text + offset;
  //    the rest of the record stays unread and nothing is terminated.
  //  - Unbounded with a buffer: L bytes go to *text + offset, unterminated.
  // The bytes a record asks for must all be in the stream: when they exceed
  // what remains after the prefix (a corrupt or truncated record), false is
  // returned with nothing copied, nothing allocated, and the stream just past
  // the prefix. A null `text`, an offset below 0 or a maxLength below -1 give
  // false without touching the stream. On false no block is handed out.
  bool ReadStringEx(char** text, int offset, int maxLength);
  // ReadStringEx into the caller's buffer, which must not be null (false,
  // stream untouched).
  bool ReadString(char* text, int offset, int maxLength);
  bool ReadString(char* text, int maxLength);

 protected:
  unsigned int m_nGrowBy;
  unsigned int m_nPosition;
  unsigned int m_nCapacity;
  unsigned int m_nLength;
  unsigned char* m_pBuffer;
  signed char m_bAutoDelete;
  void* m_hMemory;  // the block this class allocated; null for an attached buffer
};
