-- The ledger's tables and its opening accounts. Run once, in one transaction, on a new database
-- file. All amounts are in cents.

CREATE TABLE account (
    number  TEXT    PRIMARY KEY CHECK (length(number) = 8),
    name    TEXT    NOT NULL,
    balance INTEGER NOT NULL CHECK (balance BETWEEN 0 AND 999999999999)
) WITHOUT ROWID;

-- Every debit and credit that was done, in the order of posting.
CREATE TABLE journal (
    posting INTEGER PRIMARY KEY,
    account TEXT    NOT NULL REFERENCES account (number),
    kind    TEXT    NOT NULL CHECK (kind IN ('D', 'C')),
    amount  INTEGER NOT NULL CHECK (amount > 0),
    balance INTEGER NOT NULL, -- behind the posting
    posted  TEXT    NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now'))
);

INSERT INTO account (number, name, balance) VALUES
    ('ACC00001', 'Harbour Light Bakery',       1250000),
    ('ACC00002', 'Miriam Osterwald',            318475),
    ('ACC00003', 'Petrov and Daughters',       2500000),
    ('ACC00004', 'Corner Bicycle Workshop',     742360),
    ('ACC00005', 'Liang Shan',                   50000),
    ('ACC00006', 'St. Brendan School Fund',    1999950),
    ('ACC00007', 'Amara Diallo',                 87615),
    ('ACC00008', 'Northern Timber Trading',    2241308),
    ('ACC00009', 'Jonas Feld',                   65020),
    ('ACC00010', 'The Paper Lantern Theatre',   410500),
    ('ACC00011', 'Elena Marchetti',            1530099),
    ('ACC00012', 'Village Waterworks',          905733);

PRAGMA user_version = 1;
