-- The ambient-conditions database (Sybase ASE / SQL Server T-SQL), in database
-- ambient: one seeing table a site.
-- dec is a reserved word in Sybase ASE: the column is created as a quoted identifier.
set quoted_identifier on
go
create table seeing_torvane (
  start_date int not null,
  interval   int null,
  fwhm       int null,
  ra         int null,
  "dec"      int null,
  airmass    int null,
  tau        int null,
  rfl        int null,
  tet        int null
)
go
create index seeing_torvane_date on seeing_torvane (start_date)
go
create table ka_venna (
  start_date int not null,
  interval   int null,
  fwhm       int null,
  ra         int null,
  "dec"      int null,
  airmass    int null,
  tau        int null,
  rfl        int null,
  tet        int null
)
go
create index ka_venna_date on ka_venna (start_date)
go
