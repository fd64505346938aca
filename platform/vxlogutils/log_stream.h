#pragma once

#include <cstdarg>
#include <memory>

#include "platform/types.h"

// One log file, appended to. Texts are written unchanged: no stamp, no line end, no filter by level. Each TRACE reaches
// the file whole and in order, also from several threads. Nothing here fails towards the caller: what cannot be written
// (full disk, directory gone) is dropped, and the file is tried again with the next text; one that cannot be opened, a
// fraction of a second later.
class LogStream {
 public:
  // name: a bare file name is placed in the directory NATAGENT_LOG_DIR, or in the current one when that is not set;
  //   null: a stream that writes nowhere.
  // maxBytes: the size at which the file becomes name.1 (and name.1 becomes name.2 ...) and a new one is begun, before
  //   a text that would make it larger; keepFiles: how many older files are kept.
  // bufferBytes: room for what a message writes. Hold may gather 16 times as much before it is written all the same.
  // The three flags are accepted and have no meaning here.
  LogStream(const char* name, bool, bool, int maxBytes, int keepFiles, unsigned int bufferBytes, bool);
  virtual ~LogStream();
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

  void TRACE(const char* text, u8 category, u8 level);
  void TRACE(u8 category, const char* format, va_list& arguments, u8 level);

  // Between Hold and Flush texts are gathered and written together, by Flush at the latest: one write for a turn of the
  // main loop instead of one for every line. Texts of other threads keep their place in the order. Not nested.
  void Hold();
  void Flush();

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
