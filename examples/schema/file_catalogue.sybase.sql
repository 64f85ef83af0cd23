-- The archive's file catalogue (Sybase ASE / SQL Server T-SQL).
create table kest_files (
  file_id                varchar(64)  not null,
  file_name              varchar(255) null,
  file_version           int          default 1 not null,
  disk_id                varchar(32)  default '' not null,
  format                 varchar(32)  null,
  file_size              numeric(20)  default 0 not null,
  uncompressed_file_size numeric(20)  default 0 not null,
  compression            varchar(16)  null,
  ingestion_date         datetime     null,
  ignore                 int          default 0 not null,
  checksum               varchar(128) null,
  checksum_plugin        varchar(64)  null,
  file_status            char(1)      null,
  creation_date          datetime     default getdate() not null
)
go
create index kest_files_key on kest_files (file_id, file_version, disk_id)
go
