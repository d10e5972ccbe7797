-- SPDX-License-Identifier: MIT
--
-- A device inserts rows, without saying whose they are, and calls the functions about itself. People read.
set local role fleet_owner;

revoke all on all functions in schema fleet from public;
grant usage on schema fleet to fleet_device, fleet_reader;

grant execute on function fleet.hello, fleet.part, fleet.state, fleet.enrol, fleet.describe, fleet.judge,
    fleet.judge_rest, fleet.range_rest, fleet.range_digest, fleet.dropped_to, fleet.dropped_batch, fleet.new_generation,
    fleet.skip, fleet.open_alarms, fleet.end_alarms, fleet.gone_alarms, fleet.report, fleet.passed_over to fleet_device;

grant select on all tables in schema fleet to fleet_reader;
grant execute on function fleet.utc, fleet.is_doubled, fleet.series, fleet.lineage, fleet.me to fleet_reader;
grant execute on function fleet.digest(text), fleet.digest(fleet.sample), fleet.digest(fleet.alarm),
    fleet.digest(fleet.log) to fleet_reader;
