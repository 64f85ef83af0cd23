-- The copies that count as safe (Sybase ASE / SQL Server T-SQL).
create view kest_files_safe as
  select file_id, file_version, disk_id from kest_files
  where ignore = 0 and file_status = 'S'
go
