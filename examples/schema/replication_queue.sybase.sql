-- The replication queue (Sybase ASE / SQL Server T-SQL).
create table repl_queue (
  file_id          varchar(64)  not null,
  file_version     int          default 0 not null,
  disk_id          varchar(32)  null,
  submitter_id     varchar(64)  not null,
  submission_time  datetime     default getdate() not null,
  priority         int          default 0 not null,
  status_id        int          default 0 not null,
  status_string    varchar(16)  null,
  last_update_time datetime     default getdate() not null,
  message          varchar(255) null
)
go
create index repl_queue_file on repl_queue (file_id, file_version, disk_id)
go
create index repl_queue_status on repl_queue (status_id, submission_time)
go
