-- The observation repository (PostgreSQL): observation blocks and the constraint
-- sets they point to. The library names the tables obrep2..obs_blocks and
-- obrep2..constraint_sets, so this schema goes into the schema obrep2 of the
-- database a service connection logs in to (create schema obrep2; set
-- search_path to obrep2; then this).
create table if not exists constraint_sets (
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
);
create table if not exists obs_blocks (
  ob_id            int          not null,
  cs_id            int          not null,
  ob_name          varchar(64)  null
);
create index if not exists obs_blocks_ob on obs_blocks (ob_id);
