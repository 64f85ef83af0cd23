-- The AR System night log (Sybase ASE / SQL Server T-SQL), in the database the
-- service connection names. OB_ID holds the observation block number as text.
create table TORV2_NightObs (
  Request_ID       varchar(15) not null,
  OB_ID            varchar(32) null,
  Sky_Transparency varchar(16) null,
  Transparency     int         null
)
go
create index TORV2_NightObs_ob on TORV2_NightObs (OB_ID)
go
