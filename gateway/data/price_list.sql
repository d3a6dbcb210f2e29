-- The price list: articles and what they cost. Run once, in one transaction, on a ledger that has
-- none yet. Prices are in the smallest unit of their currency, which is a hundredth for all of them,
-- tax rates in hundredths of a percent.

CREATE TABLE article (
    number      INTEGER PRIMARY KEY CHECK (number BETWEEN 100000 AND 999999),
    description TEXT    NOT NULL CHECK (length(description) BETWEEN 1 AND 28),
    tax_rate    INTEGER NOT NULL CHECK (tax_rate BETWEEN 0 AND 9999)
);

CREATE TABLE price (
    article  INTEGER NOT NULL REFERENCES article (number),
    currency TEXT    NOT NULL CHECK (length(currency) = 3),
    price    INTEGER NOT NULL CHECK (price BETWEEN 1 AND 99999999),
    PRIMARY KEY (article, currency)
) WITHOUT ROWID;

INSERT INTO article (number, description, tax_rate) VALUES
    (100105, 'Wheat flour type 550, 25 kg',   700),
    (100110, 'Rye flour type 1150, 25 kg',    700),
    (100120, 'Spelt flour, 10 kg',            700),
    (100205, 'Fresh yeast, 1 kg',             700),
    (100210, 'Sea salt, 5 kg',                700),
    (100220, 'Butter, 10 kg',                 700),
    (100230, 'Crème fraîche, 5 l',            700),
    (100240, 'Jalapeño jam, 12 jars',         700),
    (200100, 'Copy paper A4, 500 sheets',    1900),
    (200105, 'Copy paper A3, 500 sheets',    1900),
    (200210, 'Envelopes C5, box of 500',     1900),
    (200310, 'Ball pens blue, 50',           1900),
    (200320, 'Pencils HB, 144',              1900),
    (200410, 'Lever arch files, 10',         1900),
    (200510, 'Toner black, 6000 pages',      1900),
    (300100, 'Bicycle tyre 28 inch',         1900),
    (300105, 'Inner tube 28 inch',           1900),
    (300210, 'Brake pads, pair',             1900),
    (300310, 'Chain oil, 250 ml',            1900),
    (300410, 'Workshop stand',               1900),
    (400100, 'Spruce board 24 mm, 3 m',      1900),
    (400110, 'Oak board 26 mm, 2 m',         1900),
    (400210, 'Wood screws 5x60, box of 200', 1900),
    (500100, 'Textbook arithmetic, year 5',   700),
    (500105, 'Textbook history, year 7',      700),
    (900100, 'Delivery within the city',     1900),
    (900200, 'Gift voucher',                    0);

INSERT INTO price (article, currency, price) VALUES
    (100105, 'EUR',   1890), (100105, 'GBP',   1625), (100105, 'USD',   2075),
    (100110, 'EUR',   2040), (100110, 'GBP',   1755), (100110, 'USD',   2245),
    (100120, 'EUR',   1995), (100120, 'GBP',   1715), (100120, 'USD',   2195),
    (100205, 'EUR',    345), (100205, 'GBP',    297), (100205, 'USD',    380),
    (100210, 'EUR',    420), (100210, 'GBP',    361), (100210, 'USD',    462),
    (100220, 'EUR',   7950), (100220, 'GBP',   6837), (100220, 'USD',   8745),
    (100230, 'EUR',   2260), (100230, 'GBP',   1944), (100230, 'USD',   2486),
    (100240, 'EUR',   4788), (100240, 'GBP',   4118), (100240, 'USD',   5267),
    (200100, 'EUR',    499), (200100, 'GBP',    429), (200100, 'USD',    549),
    (200105, 'EUR',   1129), (200105, 'GBP',    971), (200105, 'USD',   1242),
    (200210, 'EUR',   2175), (200210, 'GBP',   1871), (200210, 'USD',   2393),
    (200310, 'EUR',   1250), (200310, 'GBP',   1075), (200310, 'USD',   1375),
    (200320, 'EUR',   1799), (200320, 'GBP',   1547), (200320, 'USD',   1979),
    (200410, 'EUR',   2390), (200410, 'GBP',   2055), (200410, 'USD',   2629),
    (200510, 'EUR',   8995), (200510, 'GBP',   7736), (200510, 'USD',   9895),
    (300100, 'EUR',   2795), (300100, 'GBP',   2404), (300100, 'USD',   3075),
    (300105, 'EUR',    590), (300105, 'GBP',    507), (300105, 'USD',    649),
    (300210, 'EUR',    899), (300210, 'GBP',    773), (300210, 'USD',    989),
    (300310, 'EUR',    745), (300310, 'GBP',    641), (300310, 'USD',    820),
    (300410, 'EUR',  18900), (300410, 'GBP',  16254), (300410, 'USD',  20790),
    (400100, 'EUR',   1435), (400100, 'GBP',   1234), (400100, 'USD',   1579),
    (400110, 'EUR',   5280), (400110, 'GBP',   4541), (400110, 'USD',   5808),
    (400210, 'EUR',   1165), (400210, 'GBP',   1002), (400210, 'USD',   1282),
    (500100, 'EUR',   2650), (500100, 'GBP',   2279), (500100, 'USD',   2915),
    (500105, 'EUR',   2850), (500105, 'GBP',   2451), (500105, 'USD',   3135),
    (900100, 'EUR',    950), (900100, 'GBP',    817), (900100, 'USD',   1045),
    (900200, 'EUR',   5000), (900200, 'GBP',   5000), (900200, 'USD',   5000);
