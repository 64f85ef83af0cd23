#ifndef DATAACCESS_CONDOR_CONDORSUBMIT_H
#define DATAACCESS_CONDOR_CONDORSUBMIT_H

#include <string>

// Turns one processing request for an association block into Condor work.
//
// Thread safety: every function may be called from several threads at once.
//
// Each path must exist where it is given: a relative one is looked up from
// the current working directory. Their roles:
//   path1  the association block, handed to each job as "-a <path1>" as it
//          is given (a relative name stays relative; the jobs run in the
//          working directory);
//   path3  the executable every job runs;
//   path4  the root of the working directories: the submission's files go
//          into <path4>/<base>/ (created when missing; the root is not),
//          base being the last component of path1 without its last
//          extension ("AB_17" of "/in/AB_17.xml"), or "ab" when that leaves
//          nothing;
//   path5  the input folder, handed to the single and join jobs as "-i <path5>";
//   path6  the output folder, handed to them as "-o <path6>";
//   path7  the folder of the jobs' Condor event logs (<path7>/<job id>.log).
// path3 .. path7 are written into the files completed against the process's
// initial working directory, as every job's file name is: a host program
// that changes directory passes them absolute.
// With zero or one extension one job <base>.cmd is submitted with
//   -a <path1> -u <user> -i <path5> -o <path6>
// With n > 1 extensions a DAG <base>.dag is submitted: jobs <base>_1.cmd ..
// <base>_n.cmd (extensions are numbered from 1) with
//   -a <path1> -u <user> -e <k>
// and the join job <base>_join.cmd, run after all of them, with
//   -a <path1> -u <user> -j <n> -i <path5> -o <path6>
// Each job's output and error go to <id>.out and <id>.err in the working
// directory. Condor splits arguments at blanks: paths holding blanks reach
// the executable as several arguments. The files are saved by the
// submission only when they are missing: the files of an earlier request
// for the same block are submitted as they stand.
class CondorSubmit {
 public:
  // Negative when `path` is not a valid path name (empty, or holding a NUL
  // byte) or nothing exists there (a relative path is looked up from the
  // current working directory); 0 otherwise. The reason is logged.
  static int checkPath(const std::string& path);

  // Checks path1, path3 .. path7 (in that order), then the number of
  // extensions (not negative), then the user name (not empty), then makes
  // the working directory; the first failure is logged and ends the call
  // with -1 before anything is written. Otherwise the result of
  // CondorJob::submit or CondorDag::submit, which save the files first when
  // they are missing.
  static int submitAbToCondor(const std::string& path1, int nExtensions, const std::string& userName,
                              const std::string& path3, const std::string& path4, const std::string& path5,
                              const std::string& path6, const std::string& path7);

  // The commands submitAbToCondor submits with, for the whole process
  // (defaults "condor_submit" and "condor_submit_dag"). Thread-safe.
  static void setSubmitCommands(const std::string& jobCommand, const std::string& dagCommand);
};

#endif
