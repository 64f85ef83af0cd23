-- The archive's file catalogue (PostgreSQL): one row per copy of a file version
-- on a disk. The DAO is given the table name; this schema calls it kest_files.
create table if not exists kest_files (
  file_id                varchar(64)  not null,
  file_name              varchar(255) null,
  file_version           int          not null default 1,
  disk_id                varchar(32)  not null default '',
  format                 varchar(32)  null,
  file_size              numeric      not null default 0,
  uncompressed_file_size numeric      not null default 0,
  compression            varchar(16)  null,
  ingestion_date         timestamp(3) null,
  ignore                 int          not null default 0,
  checksum               varchar(128) null,
  checksum_plugin        varchar(64)  null,
  file_status            char(1)      null,
  creation_date          timestamp(3) not null default localtimestamp(3)
);
create index if not exists kest_files_key on kest_files (file_id, file_version, disk_id);
