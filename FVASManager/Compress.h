// Compress: the façade of ZIP extraction. It checks its inputs, runs the
// extraction driver and keeps a readable description of the last failure.
#pragma once

class Compress {
 public:
  // The description starts all zero.
  Compress();

  const char* GetErrorDescription() const { return m_szErrorDescription; }
  // True when the path's attributes can be read; otherwise the description
  // becomes "Cannot find the specified file \"<path>\"".
  bool FileExists(const char* path);
  // "Cannot find the specified folder \"<path>\"" or "\"<path>\" is not a
  // folder" when false.
  bool FolderExists(const char* path);
  // Always false; nothing depends on it.
  bool FolderCanWrite(const char* path);
  // Extracts `zipPath` below `folder` (made first when missing). On failure the
  // driver's last message becomes the description. Changes the process's
  // current directory to `folder`.
  bool Unzip(const char* zipPath, const char* folder);

 private:
  char m_szErrorDescription[1024];
};
