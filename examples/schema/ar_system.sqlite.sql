-- The AR System night log (SQLite). The library names the table
-- <database>..TORV2_NightObs, the database being the service connection's, so
-- this schema goes into the file <database>.db beside the database file the
-- connection opens. OB_ID holds the observation block number as text.
create table if not exists TORV2_NightObs (
  Request_ID       varchar(15) not null,
  OB_ID            varchar(32) null,
  Sky_Transparency varchar(16) null,
  Transparency     int         null
);
create index if not exists TORV2_NightObs_ob on TORV2_NightObs (OB_ID);
