-- The copies that count as safe (PostgreSQL): rows not ignored whose status is
-- 'S' (stored and verified). The safe-copies DAO counts rows of this view.
create or replace view kest_files_safe as
  select file_id, file_version, disk_id from kest_files
  where ignore = 0 and file_status = 'S';
