-- A small table for the connection-library section of the demo (SQLite).
create table if not exists observations (
  obs_id    integer primary key,
  target    varchar(40) not null,
  seeing    float null,
  taken_at  datetime not null
);
