# SPDX-License-Identifier: MIT
"""What somebody tries who has the credentials of device 1, whose table 1 has an alarm, active, and whose table 2 has
samples up to ID 10. Device 2 is another one."""

COPY = "copy fleet.sample (id, tbl, gen, val) from stdin;\n"

# Statements and the SQLSTATE of PostgreSQL's answer.
REFUSED = [
    # To write in the name of another
    ("insert into fleet.sample (device, id, tbl, gen) values (2, 11, 1, 1)", "42501"),
    ("copy fleet.sample (device, id, tbl, gen) from stdin;\n2\t11\t1\t1\n\\.\n", "42501"),
    ("insert into fleet.sample (day, id, tbl, gen) values ('2024-01-01', 11, 1, 1)", "42501"),
    # By way of the tables that lie below; {part} is this month's, {later} next month's
    ("insert into fleet.sample{part} (device, id, tbl, gen) values (2, 11, 2, 1)", "42501"),
    ("insert into fleet.sample{part} (day, id, tbl, gen) values (now(), 11, 2, 1)", "42501"),
    ("insert into fleet.sample{part} (id, tbl, gen) values (0, 2, 1)", "FL001"),
    ("insert into fleet.sample{part} (id, tbl, gen) values (10, 2, 1)", "23505"),
    ("insert into fleet.sample{part} (id, tbl, gen) values (11, 2, 2)", "FL001"),
    ("insert into fleet.sample{part} (id, tbl, gen) values (11, 1, 1)", "FL001"),
    ("insert into fleet.sample{later} (id, tbl, gen) values (11, 2, 1)", "23514"),
    ("copy fleet.alarm{part} (id, tbl, gen) from stdin;\n11\t2\t1\n\\.\n", "FL001"),
    ("select id from fleet.sample{part}", "42501"),
    ("copy fleet.sample{part} to stdout", "42501"),
    ("update fleet.sample{part} set val = 'x'", "42501"),
    ("alter table fleet.sample{part} disable trigger all", "42501"),
    ("drop trigger arrived on fleet.sample{part}", "42501"),
    ("select fleet.let_devices_insert('mark', 'sample')", "42501"),
    ("insert into fleet.sample_default values (1)", "42P01"),
    ("set role dev_2", "42501"),
    ("set role fleet_owner", "42501"),
    ("set session authorization dev_2", "42501"),
    ("set role owner", "42501"),
    ("alter role dev_1 rename to dev_2", "0A000"),
    ("alter role dev_1 superuser", "42501"),
    ("grant fleet_owner to dev_1", "42501"),
    # To get past the fence
    ("insert into fleet.sample (id, tbl, gen) values (10, 2, 1)", "23505"),
    ("insert into fleet.sample (id, tbl, gen) values (0, 2, 1)", "FL001"),
    ("insert into fleet.sample (id, tbl, gen) values (-1, 2, 1), (11, 2, 1)", "FL001"),
    ("insert into fleet.sample (id, tbl, gen) values (11, 2, 2)", "FL001"),
    ("insert into fleet.sample (id, tbl, gen) values (11, 9, 1)", "FL001"),
    ("insert into fleet.sample (id, tbl, gen) values (11, 1, 1)", "FL001"),  # a table of alarms
    ("insert into fleet.sample (id, tbl, gen) values (11, 2, 1), (11, 2, 1)", "23505"),
    (COPY + "11\t2\t1\tx\n11\t2\t1\tx\n\\.\n", "23505"),
    ("insert into fleet.sample (id, tbl, gen) values (11, 2, 1) on conflict do nothing returning id", "42501"),
    ("insert into fleet.sample (id, tbl, gen) values (1, 2, 1) on conflict (id) do update set val = 'x'", "42P10"),
    ("update fleet.mark set wm = 0", "42501"),
    ("insert into fleet.mark values (1, 3, 1, 'sample', 0)", "42501"),
    ("delete from fleet.batch", "42501"),
    ("create temporary table mark (device integer)", "42501"),
    ("alter table fleet.sample disable trigger all", "42501"),
    ("drop trigger arrived on fleet.sample", "42501"),
    ("set session_replication_role = replica", "42501"),
    ("select fleet.arrived()", "42501"),
    ("select fleet.skip(2::smallint, 1::smallint, 3, 100)", "FL001"),
    ("select fleet.new_generation(2::smallint, 1::smallint, 3, 1::smallint, 0, '')", "FL001"),
    ("select fleet.new_generation(2::smallint, 1::smallint, 10, 9::smallint, 5, '')", "FL003"),
    ("select fleet.make_months()", "42501"),
    ("select fleet.repair(2, 'sample')", "42501"),
    # To write what nobody can read
    ("insert into fleet.sample (id, tbl, gen, dt) values (11, 2, 1, '294276-12-31 23:59:59')", "23514"),
    ("insert into fleet.sample{part} (id, tbl, gen, dt) values (11, 2, 1, '4713-01-01 BC')", "23514"),
    ("insert into fleet.alarm{part} (id, tbl, gen, dt) values (11, 1, 1, '10000-01-01')", "23514"),
    ("insert into fleet.log (id, tbl, gen, dt) values (11, 2, 1, 'infinity')", "23514"),
    # To read
    ("select * from fleet.sample", "42501"),
    ("select count(*) from fleet.sample", "42501"),
    ("select id from fleet.sample where device = 1", "42501"),
    ("copy fleet.sample to stdout", "42501"),
    ("copy (select id from fleet.alarm) to stdout", "42501"),
    ("select * from fleet.samples", "42501"),
    ("select * from fleet.status", "42501"),
    ("select * from fleet.device", "42501"),
    ("select * from fleet.mark", "42501"),
    ("select * from fleet.series(2, 1::smallint, '2024-01-01', '2025-01-01')", "42501"),
    ("select * from fleet.lineage(2, 1::smallint, 1::smallint)", "42501"),
    ("explain analyze select * from fleet.sample", "42501"),
    ("insert into fleet.sample (id, tbl, gen) values (11, 2, 1) returning val", "42501"),
    ("begin; declare c cursor for select * from fleet.sample", "42501"),
    ("create view v as select * from fleet.sample", "42501"),
    ("begin; lock table fleet.sample in access exclusive mode", "42501"),
    ("begin; lock table fleet.mark in row exclusive mode", "42501"),
    # To change what is old
    ("update fleet.sample set val = 'x'", "42501"),
    ("update fleet.alarm set end_date = 'x' where device = 1", "42501"),
    ("delete from fleet.sample", "42501"),
    ("truncate fleet.sample", "42501"),
    ("merge into fleet.sample using (values (1)) v on true when matched then delete", "42501"),
    ("drop table fleet.sample", "42501"),
    ("drop schema fleet cascade", "42501"),
    ("alter table fleet.sample add column x text", "42501"),
    ("create index on fleet.sample (val)", "42501"),
    # To leave the database, or fill it
    ("copy fleet.sample (val) from '/etc/passwd'", "42501"),
    ("copy (select 1) to program 'true'", "42501"),
    ("copy fleet.sample (val) from program 'true'", "42501"),
    ("select pg_read_file('/etc/passwd')", "42501"),
    ("select lo_create(0)", "42501"),
    ("select lo_from_bytea(0, 'x')", "42501"),
    ("create table public.t (a integer)", "42501"),
    ("create table fleet.t (a integer)", "42501"),
    ("create schema mine", "42501"),
    ("create function fleet.digest(integer) returns bigint language sql as 'select 1::bigint'", "42501"),
    ("create extension dblink", "42501"),
    ("create database mine", "42501"),
    ("create role other", "42501"),
    ("create subscription s connection 'x' publication p", "42501"),
    ("alter system set fsync = off", "42501"),
    ("select pg_terminate_backend(pid) from (select 1 as pid) x where pg_reload_conf()", "42501"),
]

# What is allowed and lasts until somebody adds the device once more.
LASTING = [
    "alter role dev_1 in database {database} set default_transaction_read_only = on",
    "alter role dev_1 in database {database} set statement_timeout = 1",
    "alter role dev_1 set search_path = nowhere",
    "alter role dev_1 set role = nobody",
    "alter role dev_1 set idle_in_transaction_session_timeout = 0",
    "alter role dev_1 password 'another'",
]

# What is allowed and does nothing to others.
WITHOUT_EFFECT = [
    ("select fleet.end_alarms(1::smallint, 1::smallint, '{99}', '{x}', '{y}', '{NULL}')", [["0"]]),
    ("select fleet.gone_alarms(2::smallint, 1::smallint, '{1}', 0)", [["0"]]),
    ("set search_path = pg_temp, public; select count(*) from fleet.state()", [["2"]]),
    ("select fleet.describe(9::smallint, 'x', 'x', 'x')", [[None]]),
    ("select query from pg_stat_activity where usename <> 'dev_1' and query <> '<insufficient privilege>' "
     "and usename is not null", []),
    ("select most_common_vals from pg_stats where schemaname = 'fleet'", []),
    ("begin; insert into fleet.sample (id, tbl, gen) values (11, 2, 1); rollback", []),
]
