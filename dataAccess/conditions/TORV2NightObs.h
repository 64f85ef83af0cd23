#ifndef DATAACCESS_CONDITIONS_TORV2NIGHTOBS_H
#define DATAACCESS_CONDITIONS_TORV2NIGHTOBS_H

#include <string>
#include <vector>

// The night-log record of an observation request in the AR System database:
// the sky transparency that the night staff noted. obId_ is the observation
// block asked for, in decimal. NULL columns read as an empty string or 0.
// Thread safety: a plain value; distinct objects may be used on different threads at once.
struct TORV2NightObs {
  typedef std::vector<TORV2NightObs> Container;

  std::string requestId_;
  std::string obId_;
  std::string skyTransparency_;
  int transparency_ = 0;
};

#endif
