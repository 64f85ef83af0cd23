#ifndef DATAACCESS_CATALOGUE_KESTFILE_H
#define DATAACCESS_CATALOGUE_KESTFILE_H

#include <sys/time.h>

#include <string>

// The status character of a catalogue row.
typedef unsigned char KestFileStatus;

// One row of the archive's file catalogue: one copy of one version of one
// archived file on one disk. Sizes are 32-bit: the DAO saturates database
// values beyond that range to INT_MAX / INT_MIN when it reads them.
// Thread safety: a plain value; distinct objects may be used on different threads at once.
struct KestFile {
  KestFile()
      : fileVersion_(0),
        fileSize_(0),
        uncompressedFileSize_(0),
        ingestionDate_{0, 0},
        ignore_(0),
        fileStatus_(' '),
        creationDate_{0, 0} {}

  std::string fileId_;
  std::string fileName_;
  int fileVersion_;
  std::string diskId_;
  std::string format_;
  int fileSize_;
  int uncompressedFileSize_;
  std::string compression_;
  timeval ingestionDate_;
  int ignore_;
  std::string checksum_;
  std::string checksumPlugin_;
  KestFileStatus fileStatus_;
  timeval creationDate_;
};

typedef KestFile* pKestFile;

#endif
