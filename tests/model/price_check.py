"""The check of a finished snapshot's books."""

from .common import EPSILON, ERROR, LAST_SLOT, NO_VALUE, WARNING, is_zero, lf

OUT_OF_LIMITS, NOT_FALLING, MISMATCH = -1, -2, -3


def check_price(prices, volumes, upper, lower, spread, log):
    """Ten prices from the fifth ask down to the fifth bid must fall and lie within the limits."""
    origin = "ExanicTcpFunc CheckPrice"
    previous = NO_VALUE
    for index, (price, volume) in enumerate(zip(prices, volumes)):
        zero = is_zero(price)
        if not spread and (volume > 0 if zero else volume < 1):
            log.write(WARNING, origin, f"Price and Volume mismatch at index {index}: "
                      f"price={lf(price)}, vol={volume}")
            return MISMATCH
        if zero and not volume > 0:
            continue
        if price < lower - EPSILON or price > upper + EPSILON:
            log.write(WARNING, origin, f"(price > up) or (price < lower), price is {lf(price)}, "
                      f"up is {lf(upper)}, lower is {lf(lower)}, index is :{index}")
            return OUT_OF_LIMITS
        if previous <= price:
            log.write(WARNING, origin, f"The price is abnormal, price index is :{index} ")
            return NOT_FALLING
        previous = price
    return 0


def check_instrument(record, limits, shielded, log):
    text = record.id_text
    if "TAS" in text:
        return 0
    prices = record.ask_px[4::-1] + record.bid_px[:5]
    volumes = record.ask_vol[4::-1] + record.bid_vol[:5]
    spread = "-" in text
    upper, lower = (NO_VALUE, -NO_VALUE) if spread else limits
    result = check_price(prices, volumes, upper, lower, spread, log)
    if result == 0:
        return 0
    origin = "ExanicTcpFunc ShfeInstPriceCheck"
    log.write(ERROR, origin, f"inst_id [{text}]upper[{lf(limits[0], '%8f')}]"
              f"lower[{lf(limits[1], '%8f')}]")
    levels = [f"ask{n}" for n in (5, 4, 3, 2, 1)] + [f"bid{n}" for n in (1, 2, 3, 4, 5)]
    for level, price, volume in zip(levels, prices, volumes):
        log.write(ERROR, origin, f"{level} px[{lf(price, '%8f')}]vol[{volume}]")
    return 0 if shielded else result


def check_snapshot(table, limits, shielded, log):
    """limits: slot -> (upper, lower). A slot never touched is all zeros and passes."""
    shfe = [s for s in sorted(table.records) if s < table.shfe_inst_cnt]
    ine = [s for s in sorted(table.records, reverse=True) if LAST_SLOT - s < table.ine_inst_cnt]
    for slot in shfe + ine:
        result = check_instrument(table.records[slot], limits.get(slot, (0.0, 0.0)), shielded, log)
        if result != 0:
            return result
    return 0
