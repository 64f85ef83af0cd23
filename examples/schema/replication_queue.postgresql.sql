-- The replication queue (PostgreSQL). The DAO is given the table name; this
-- schema calls it repl_queue. Dates are timestamps without time zone, in the
-- session's local time; the library writes and reads them as
-- "YYYYMMDD HH:MM:SS.mmm".
create table if not exists repl_queue (
  file_id          varchar(64)  not null,
  file_version     int          not null default 0,
  disk_id          varchar(32)  null,
  submitter_id     varchar(64)  not null,
  submission_time  timestamp(3) not null default localtimestamp(3),
  priority         int          not null default 0,
  status_id        int          not null default 0,
  status_string    varchar(16)  null,
  last_update_time timestamp(3) not null default localtimestamp(3),
  message          varchar(255) null
);
create index if not exists repl_queue_file on repl_queue (file_id, file_version, disk_id);
create index if not exists repl_queue_status on repl_queue (status_id, submission_time);
