#ifndef DATAACCESS_CONDITIONS_SEEING_H
#define DATAACCESS_CONDITIONS_SEEING_H

#include <vector>

// One seeing measurement of the ambient-conditions database. startDate_ is the
// table's key (the negated seconds since 1980-01-01); fwhm_ is in hundredths
// of an arcsecond, 255 marking an invalid measurement. NULL columns read as 0.
// Thread safety: a plain value; distinct objects may be used on different threads at once.
struct Seeing {
  typedef std::vector<Seeing> Container;

  int startDate_ = 0;
  int interval_ = 0;
  int fwhm_ = 0;
  int ra_ = 0;
  int dec_ = 0;
  int airmass_ = 0;
  int tau_ = 0;
  int rfl_ = 0;
  int tet_ = 0;
};

#endif
