-- The registry's tables: users with their passwords, and systems. Run in one transaction whenever
-- the database file is opened; what is there already stays. All times are milliseconds since 1970,
-- UTC.

-- What holds for every user who has no rule of his own.
CREATE TABLE IF NOT EXISTS rules (
    id       INTEGER PRIMARY KEY CHECK (id = 1),
    shortest INTEGER NOT NULL, -- characters of a new password
    longest  INTEGER NOT NULL,
    digit    INTEGER NOT NULL, -- 1: a new password needs one
    history  INTEGER NOT NULL, -- a new password is none of so many last ones; 0: it may be any
    lifetime INTEGER NOT NULL, -- days until a new password expires; 0: it never does
    attempts INTEGER NOT NULL  -- wrong passwords that revoke a user; 0: none do
);

INSERT INTO rules VALUES (1, 6, 32, 1, 3, 90, 3) ON CONFLICT DO NOTHING;

CREATE TABLE IF NOT EXISTS "user" (
    id       TEXT    PRIMARY KEY CHECK (length(id) BETWEEN 1 AND 10),
    expiry   INTEGER,                    -- of the password; NULL: never
    verified INTEGER,                    -- when the password was last verified; NULL: never
    accessed INTEGER,                    -- when the user last had access; NULL: never
    invalid  INTEGER NOT NULL DEFAULT 0, -- wrong passwords since the last right one
    revoked  INTEGER NOT NULL DEFAULT 0,
    shortest INTEGER,                    -- from here on: the rule for this user; NULL: as for all
    longest  INTEGER,
    digit    INTEGER,
    history  INTEGER,
    lifetime INTEGER,
    attempts INTEGER
) WITHOUT ROWID;

-- Every password that a user has had; the one in force has the highest number.
CREATE TABLE IF NOT EXISTS password (
    "user" TEXT    NOT NULL REFERENCES "user" (id),
    number INTEGER NOT NULL,
    hash   TEXT    NOT NULL,
    PRIMARY KEY ("user", number)
) WITHOUT ROWID;

-- What a system may be like, and the code that it then answers; 0 is good.
CREATE TABLE IF NOT EXISTS state (
    name TEXT    PRIMARY KEY,
    code INTEGER NOT NULL
) WITHOUT ROWID;

INSERT INTO state VALUES
    ('available',                      0),
    ('unavailable',                   -3),
    ('died',                          -4),
    ('failing',                       -9),
    ('resource shortage',            -16),
    ('no sessions',                  -17),
    ('too many systems',             -28),
    ('too many sessions',            -29),
    ('no password management',      -103),
    ('password management inactive', -104)
ON CONFLICT DO NOTHING;

-- The first one is the default.
CREATE TABLE IF NOT EXISTS system (
    position    INTEGER PRIMARY KEY,
    name        TEXT    NOT NULL UNIQUE CHECK (length(name) BETWEEN 1 AND 8),
    description TEXT    NOT NULL CHECK (length(description) <= 60),
    state       TEXT    NOT NULL DEFAULT 'available' REFERENCES state (name)
);
