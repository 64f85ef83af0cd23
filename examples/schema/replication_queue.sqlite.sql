-- The replication queue (SQLite). The DAO is given the table name; this
-- schema calls it repl_queue. Dates are stored as "YYYYMMDD HH:MM:SS.mmm"
-- local time, the form the library writes and getdate() produces.
create table if not exists repl_queue (
  file_id          varchar(64)  not null,
  file_version     int          not null default 0,
  disk_id          varchar(32)  null,
  submitter_id     varchar(64)  not null,
  submission_time  datetime     not null default (strftime('%Y%m%d %H:%M:%f', 'now', 'localtime')),
  priority         int          not null default 0,
  status_id        int          not null default 0,
  status_string    varchar(16)  null,
  last_update_time datetime     not null default (strftime('%Y%m%d %H:%M:%f', 'now', 'localtime')),
  message          varchar(255) null
);
create index if not exists repl_queue_file on repl_queue (file_id, file_version, disk_id);
create index if not exists repl_queue_status on repl_queue (status_id, submission_time);
