-- The observation repository (Sybase ASE / SQL Server T-SQL), in database obrep2.
create table constraint_sets (
  cs_id            int          not null primary key,
  user_id          int          null,
  item_name        varchar(64)  null,
  item_description varchar(255) null,
  seeing           real         null,
  sky_transparency varchar(16)  null,
  airmass          real         null,
  fli              real         null,
  moon_distance    int          null,
  local_storage_id varchar(32)  null,
  strehl_ratio     real         null,
  baseline_id      int          null
)
go
create table obs_blocks (
  ob_id            int          not null,
  cs_id            int          not null,
  ob_name          varchar(64)  null
)
go
create index obs_blocks_ob on obs_blocks (ob_id)
go
