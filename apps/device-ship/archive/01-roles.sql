-- SPDX-License-Identifier: MIT
--
-- Three roles without a login. What a device may call runs with the rights of fleet_owner, who is not a superuser
-- even where one sets up the archive.
do $$
declare
    role text;
begin
    foreach role in array array['fleet_owner', 'fleet_device', 'fleet_reader'] loop
        if not exists (select from pg_roles where rolname = role) then
            begin
                execute format('create role %I nologin', role);
            exception when duplicate_object or unique_violation then
                null; -- made at this moment for another database of the cluster
            end;
        end if;
    end loop;
    if not pg_has_role('fleet_owner', 'member') then
        execute format('grant fleet_owner to %I', current_user);
    end if;
    execute format('grant create, temporary on database %I to fleet_owner', current_database());
    -- Else a device could fill the server's disk with tables of its own.
    execute format('revoke temporary on database %I from public', current_database());
    revoke create on schema public from public;
end
$$;
set local role fleet_owner;
create schema fleet;
