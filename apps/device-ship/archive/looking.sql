-- SPDX-License-Identifier: MIT
--
-- Looking at several archives from one server, on which nothing is archived. For each range of device numbers, by psql:
--
--   psql -d looking -v name=north -v first=1 -v last=999 -v options="host 'north', dbname 'fleet'" -f looking.sql
--
-- People are members of fleet_reader, here and, by a user mapping, there. No row moves when a server is added or leaves.
\set ON_ERROR_STOP on
begin;
set local client_min_messages = warning;
create extension if not exists postgres_fdw;
create schema if not exists fleet;

-- The same columns as in an archive, and partitions by the device's number; the parents have no rows.
create table if not exists fleet.device (
    device integer, name text, zone text, seen timestamptz, trouble text
) partition by range (device);
create table if not exists fleet.source (
    device integer, tbl smallint, file text, name text, kind text, title text, unit text
) partition by range (device);
create table if not exists fleet.mark (
    device integer, tbl smallint, gen smallint, wm bigint, last_id bigint, reported timestamptz
) partition by range (device);
create table if not exists fleet.sample (
    device integer, tbl smallint, gen smallint, id bigint, dt timestamp, num double precision, val text
) partition by range (device);
create table if not exists fleet.alarm (
    device integer, tbl smallint, gen smallint, id bigint, dt timestamp, level bigint, object text, type text,
    value text, "limit" text, description text, end_date text, end_time text, gone timestamptz
) partition by range (device);
create table if not exists fleet.log (
    device integer, tbl smallint, gen smallint, id bigint, dt timestamp, user_name text, log_name text, message text
) partition by range (device);

-- Which servers there are, for whoever wants to know what a failed question left out.
create table if not exists fleet.server (name text primary key, first integer not null, last integer not null);
insert into fleet.server values (:'name', :first, :last);

create server :"name" foreign data wrapper postgres_fdw
    options (:options, async_capable 'true', fetch_size '10000', use_remote_estimate 'true', connect_timeout '5');
select format('create foreign table fleet.%I partition of fleet.%I for values from (%s) to (%s) server %I
               options (schema_name ''fleet'', table_name %L)',
              kind || '_' || :'name', kind, :first, coalesce((nullif(:last::bigint, 2147483647) + 1)::text, 'maxvalue'),
              :'name', kind)
from unnest(array['device', 'source', 'mark', 'sample', 'alarm', 'log']) kind \gexec

do $$
begin
    if not exists (select from pg_roles where rolname = 'fleet_reader') then
        create role fleet_reader nologin;
    end if;
end
$$;
grant usage on schema fleet to fleet_reader;
grant select on all tables in schema fleet to fleet_reader;

select format('alter database %I set enable_partitionwise_aggregate = on', current_database()) \gexec
commit;
