-- The AR System night log (PostgreSQL). The library names the table
-- <database>..TORV2_NightObs, the database being the service connection's:
-- when that is the database logged in to, the table is its own (schema
-- public); otherwise it goes into the schema of that name. Unquoted names
-- fold to lower case, here and in the library's statements alike. OB_ID holds the observation block number as text.
create table if not exists TORV2_NightObs (
  Request_ID       varchar(15) not null,
  OB_ID            varchar(32) null,
  Sky_Transparency varchar(16) null,
  Transparency     int         null
);
create index if not exists TORV2_NightObs_ob on TORV2_NightObs (OB_ID);
