-- SPDX-License-Identifier: MIT
--
-- For people and their programs.
set local role fleet_owner;

-- Whether the end of summer time repeats this hour. PostgreSQL takes such a time for the second pass.
create function fleet.is_doubled(local timestamp, zone text) returns boolean language sql stable parallel safe as $$
    select (local at time zone zone - interval '1 hour') at time zone zone = local
$$;

-- A device's local time as UTC. The passes of a doubled hour are told apart by the order of recording: where the clock
-- went back within it before a row, the row belongs to the second.
create function fleet.utc(r fleet.sample, zone text) returns timestamptz language sql stable parallel safe as $$
    select r.dt at time zone zone - case when fleet.is_doubled(r.dt, zone) and not exists (
            select from (select p.dt, lag(p.dt) over (order by p.id) as former
                         from (select * from fleet.sample s
                               where s.device = r.device and s.tbl = r.tbl and s.gen = r.gen and s.id <= r.id
                               order by s.id desc limit 20000) p) step
            where step.dt < step.former and fleet.is_doubled(step.dt, zone) and fleet.is_doubled(step.former, zone)
                and step.former < r.dt + interval '1 hour' and step.former > r.dt - interval '1 hour')
        then interval '1 hour' else interval '0' end
$$;

create view fleet.samples as
    select r.device, d.name as device_name, s.file, s.name as "table", s.title, s.unit, r.gen, r.id, r.dt as local_time,
        d.zone, r.num, r.val as value, r.odd, fleet.utc(r, d.zone) as utc
    from fleet.sample r join fleet.source s using (device, tbl) join fleet.device d using (device);

create view fleet.alarms as
    select r.device, d.name as device_name, s.file, r.gen, r.id, r.dt as local_time, d.zone, r.level, r.object, r.type,
        r.value, r."limit", r.description, r.end_date, r.end_time, r.ended, r.gone, r.last_seen, r.odd,
        case when r.gone is not null then 'gone' when r.end_date = '' and r.end_time = '' then 'active' else 'ended' end
            as state,
        r.dt at time zone d.zone as utc
    from fleet.alarm r join fleet.source s using (device, tbl) join fleet.device d using (device);

create view fleet.logs as
    select r.device, d.name as device_name, s.file, r.gen, r.id, r.dt as local_time, d.zone, r.user_name, r.log_name,
        r.message, r.odd, r.dt at time zone d.zone as utc
    from fleet.log r join fleet.source s using (device, tbl) join fleet.device d using (device);

-- The samples of one series between two local times. By way of the batches, which PostgreSQL does not find by itself:
-- no index on time is needed, however late a row was received. OFFSET 0 keeps the two apart.
create function fleet.series(its_device integer, its_tbl smallint, first timestamp, last timestamp)
returns setof fleet.sample language sql stable parallel safe as $$
    select r.* from fleet.batch b cross join lateral (
        select * from fleet.sample s
        where s.device = b.device and s.tbl = b.tbl and s.gen = b.gen and s.id between b.id_from and b.id_to
            and s.day between (b.received at time zone 'UTC')::date and (b.received_to at time zone 'UTC')::date
            and s.dt >= first and s.dt <= last
        offset 0) r
    where b.device = its_device and b.tbl = its_tbl and b.earliest <= last and b.latest >= first
    order by r.dt, r.gen, r.id
$$;

create view fleet.status as
    select d.device, d.name as device_name, s.file, s.name as "table", s.kind, m.gen as generations, m.wm as shipped,
        greatest(m.last_id - m.wm, 0) as behind, m.reported, b.received_to as last_received, b.latest as last_time,
        (select count(*) from fleet.gap g where g.device = d.device and g.tbl = s.tbl) as gaps,
        (select sum(g.id_to - g.id_from + 1) from fleet.gap g where g.device = d.device and g.tbl = s.tbl) as missing,
        d.seen, d.trouble, d.troubled
    from fleet.device d left join fleet.source s using (device) left join fleet.mark m using (device, tbl)
    left join fleet.batch b on b.device = m.device and b.tbl = m.tbl and b.gen = m.gen and b.id_from = m.batch
    order by d.device, s.tbl;
