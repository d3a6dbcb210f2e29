-- The database that stand-in gateways share, and its owner, who makes the tables. Run once at the
-- server, by whoever may: psql --file=database.sql. docs/production.md says why each line stands
-- here.

CREATE ROLE gateway LOGIN PASSWORD 'Choose1another';
CREATE DATABASE ledger OWNER gateway ENCODING 'UTF8' TEMPLATE template0;
