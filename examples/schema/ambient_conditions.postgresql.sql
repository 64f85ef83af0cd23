-- The ambient-conditions database (PostgreSQL): one seeing table a site. The
-- library names them ambient..seeing_torvane and ambient..ka_venna, so this
-- schema goes into the schema ambient of the database a service connection
-- logs in to (create schema ambient; set search_path to ambient; then this).
-- start_date is the negated number of seconds since 1980-01-01; fwhm is in
-- hundredths of an arcsecond, 255 marking an invalid measurement.
create table if not exists seeing_torvane (
  start_date int not null,
  interval   int null,
  fwhm       int null,
  ra         int null,
  dec        int null,
  airmass    int null,
  tau        int null,
  rfl        int null,
  tet        int null
);
create index if not exists seeing_torvane_date on seeing_torvane (start_date);
create table if not exists ka_venna (
  start_date int not null,
  interval   int null,
  fwhm       int null,
  ra         int null,
  dec        int null,
  airmass    int null,
  tau        int null,
  rfl        int null,
  tet        int null
);
create index if not exists ka_venna_date on ka_venna (start_date);
