"""What each column of a data file holds: the board's column names mapped to tidy names, types,
units and, where CF has one, a standard name.

The board names its columns in the data header line; which columns exist depends on the data-field
switches and presets, so a reader goes by these names, never by position. The instrument groups
(the ports' instruments and the pump) name several columns each and are recognised by their whole
name sequence, because some of their names repeat the board's own (the Brisa instrument starts with
its own SampNum and date).
"""

from dataclasses import dataclass


@dataclass(frozen=True)
class Column:
    key: str  # tidy name, also the CSV and NetCDF variable name
    header: str  # the board's name for it, blanks stripped
    kind: str  # "sample", "time", "float", "int" or "text"
    units: str = ""  # UDUNITS spelling; "" for none (text) and "1" for dimensionless
    long_name: str = ""
    standard_name: str = ""


def _c(key, header, kind, units="", long_name="", standard_name=""):
    return Column(key, header, kind, units, long_name, standard_name)


# The board's own columns, in the order a line carries them.
BOARD_COLUMNS = [
    _c("sample", "SampNum", "sample", "", "sample number"),
    _c("time", "MM/DD/YYYY HH:MM:SS", "time", "", "time of the sample (UTC)"),
    _c("time", "Epoch millisec", "time", "", "time of the sample (UTC)"),
    _c("vbat_main", "VbatMain", "float", "V", "main battery voltage"),
    _c("vbias_pos", "VbiasPos", "float", "V", "positive bias battery voltage"),
    _c("vbias_neg", "VbiasNeg", "float", "V", "negative bias battery voltage"),
    _c("board_temperature", "TC_cont", "float", "degree_Celsius", "temperature inside the housing"),
    _c("board_humidity", "Humidity", "int", "percent", "relative humidity inside the housing"),
    _c("vtherm", "Vtherm", "float", "V", "thermistor divider voltage"),
    _c("vtherm_std", "VthrmStd", "float", "V", "standard deviation of the thermistor voltage"),
    _c("temperature", "TC_Dfet", "float", "degree_Celsius", "sea water temperature at the pH sensor",
       "sea_water_temperature"),
    _c("vrsi", "Vrsi", "float", "V", "internal reference cell voltage"),
    _c("vrsi_std", "Vrsi_std", "float", "V", "standard deviation of the internal reference cell voltage"),
    _c("ph_int", "pHintEst", "float", "1", "pH (total scale) from the internal reference"),
    _c("vrse", "Vrse", "float", "V", "external reference cell voltage"),
    _c("vrse_std", "Vrse_std", "float", "V", "standard deviation of the external reference cell voltage"),
    _c("ph_ext", "pHextEst", "float", "1", "pH (total scale) from the external reference",
       "sea_water_ph_reported_on_total_scale"),
    _c("vrsi_biased", "Vrsi_B", "float", "V", "internal reference cell voltage, biased"),
    _c("vrsi_biased_std", "VrsiBstd", "float", "V", "standard deviation of the biased internal cell voltage"),
    _c("vrse_biased", "Vrse_B", "float", "V", "external reference cell voltage, biased"),
    _c("vrse_biased_std", "VrseBstd", "float", "V", "standard deviation of the biased external cell voltage"),
    _c("vk", "Vk", "float", "V", "counter electrode voltage"),
    _c("vk_std", "Vk_std", "float", "V", "standard deviation of the counter electrode voltage"),
    _c("ik", "Ik", "float", "nA", "sensor drain current"),
    _c("ib", "Ib", "float", "V", "substrate leakage reading"),
]

BOARD_ORDER = {c.header: i for i, c in enumerate(BOARD_COLUMNS)}


def _group(key, long_name, columns):
    return (key, long_name, [Column(k, h, kind, u, ln, sn) for k, h, kind, u, ln, sn in columns])


def _g(key, header, kind="float", units="", long_name="", standard_name=""):
    return (key, header, kind, units, long_name, standard_name)


# The instrument groups, in the order a line carries them (port 3, port 4, pump).
GROUPS = [
    _group("optode", "Aanderaa oxygen optode on port 3", [
        _g("optode_product", "Opt_PN", "text", "", "optode product number"),
        _g("optode_serial", "Opt_SN", "text", "", "optode serial number"),
        _g("oxygen", "Moxy", "float", "umol L-1", "dissolved oxygen concentration",
           "mole_concentration_of_dissolved_molecular_oxygen_in_sea_water"),
        _g("oxygen_saturation", "O2satper", "float", "percent", "oxygen saturation",
           "fractional_saturation_of_oxygen_in_sea_water"),
        _g("optode_temperature", "TC_opt", "float", "degree_Celsius", "temperature at the optode",
           "sea_water_temperature"),
        _g("optode_dphase", "Dphase", "float", "degree", "optode calibrated phase"),
        _g("optode_bphase", "Bphase", "float", "degree", "optode blue phase"),
        _g("optode_rphase", "Rphase", "float", "degree", "optode red phase"),
        _g("optode_bamp", "Bamp", "float", "mV", "optode blue amplitude"),
        _g("optode_bpot", "Bpot", "float", "mV", "optode blue potentiometer"),
        _g("optode_ramp", "Ramp", "float", "mV", "optode red amplitude"),
        _g("optode_raw_temperature", "Opt_rawtemp", "float", "mV", "optode raw temperature"),
    ]),
    _group("ocr", "OCR-504 radiometer on port 3", [
        _g("ocr_header", "OCR_PN", "text", "", "radiometer frame header and serial number"),
        _g("irradiance_1", "Chan_1", "float", "uW cm-2 nm-1", "radiometer channel 1"),
        _g("irradiance_2", "Chan_2", "float", "uW cm-2 nm-1", "radiometer channel 2"),
        _g("irradiance_3", "Chan_3", "float", "uW cm-2 nm-1", "radiometer channel 3"),
        _g("irradiance_4", "Chan_4", "float", "uW cm-2 nm-1", "radiometer channel 4"),
    ]),
    _group("brisa", "Brisa DuraFET pH instrument on port 3", [
        _g("brisa_sample", "SampNum", "text", "", "Brisa sample number"),
        _g("brisa_time", "MM/DD/YYYY HH:MM:SS", "text", "", "Brisa clock time"),
        _g("brisa_vbias_pos", "VbiasPos", "float", "V", "Brisa bias battery voltage"),
        _g("brisa_board_temperature", "TC_cont", "float", "degree_Celsius", "Brisa housing temperature"),
        _g("brisa_humidity", "Humidity", "float", "percent", "Brisa housing humidity"),
        _g("brisa_vtherm", "Vtherm", "float", "V", "Brisa thermistor voltage"),
        _g("brisa_vtherm_std", "VthrmStd", "float", "V", "Brisa thermistor voltage standard deviation"),
        _g("brisa_temperature", "TC_Dfet", "float", "degree_Celsius", "Brisa DuraFET temperature",
           "sea_water_temperature"),
        _g("brisa_vrse", "Vrse", "float", "V", "Brisa external reference cell voltage"),
        _g("brisa_vrse_std", "Vrse_std", "float", "V", "Brisa external reference voltage standard deviation"),
        _g("brisa_vk", "Vk", "float", "V", "Brisa counter electrode voltage"),
        _g("brisa_vk_std", "Vk_std", "float", "V", "Brisa counter electrode voltage standard deviation"),
        _g("brisa_ik", "Ik", "float", "nA", "Brisa drain current"),
        _g("brisa_ib", "Ib", "float", "V", "Brisa substrate reading"),
    ]),
    _group("corrib", "pico-pH meter on port 3", [
        _g("corrib_command", "MEA", "text", "", "meter command echoed"),
        _g("corrib_channel", "Chan", "int", "1", "optical channel"),
        _g("corrib_sensors", "Sensors", "int", "1", "sensor selection bits"),
        _g("corrib_status", "Errors", "int", "1", "status bits"),
        _g("corrib_dphi", "dphi", "float", "millidegree", "phase shift"),
        _g("corrib_r2", "0", "int", "1", "unused result 2"),
        _g("corrib_r3", "0", "int", "1", "unused result 3"),
        _g("corrib_r4", "0", "int", "1", "unused result 4"),
        _g("corrib_sample_temperature", "TC_samp", "float", "millidegree_Celsius", "sample temperature"),
        _g("corrib_case_temperature", "TC_case", "float", "millidegree_Celsius", "case temperature"),
        _g("corrib_signal", "sigInt", "float", "1", "signal intensity"),
        _g("corrib_ambient_light", "ambLight", "float", "1", "ambient light"),
        _g("corrib_pressure", "Pres", "float", "1", "pressure, as the meter reports it"),
        _g("corrib_humidity", "Hum", "float", "1", "humidity, as the meter reports it"),
        _g("corrib_resistance", "TO_res", "float", "1", "optical temperature sensor resistance"),
        _g("corrib_r12", "0", "int", "1", "unused result 12"),
        _g("corrib_r13", "0", "int", "1", "unused result 13"),
        _g("corrib_ph_milli", "pH", "float", "1", "pH in thousandths"),
        _g("corrib_r15", "0", "int", "1", "reserved result 15"),
        _g("corrib_r16", "0", "int", "1", "reserved result 16"),
        _g("corrib_r17", "0", "int", "1", "reserved result 17"),
    ]),
    _group("sbe37", "SBE37 MicroCAT CTD on port 4", [
        _g("ctd_temperature", "TC_MCat", "float", "degree_Celsius", "CTD temperature", "sea_water_temperature"),
        _g("ctd_conductivity", "Cond", "float", "S m-1", "CTD conductivity", "sea_water_electrical_conductivity"),
        _g("ctd_pressure", "Pres", "float", "dbar", "CTD pressure", "sea_water_pressure"),
        _g("salinity", "pSal", "float", "1", "CTD practical salinity", "sea_water_practical_salinity"),
        _g("ctd_date", "Date_MC", "text", "", "CTD clock date"),
        _g("ctd_time", "Time_MC", "text", "", "CTD clock time"),
    ]),
    _group("aand5860", "Aanderaa 5860 conductivity sensor on port 4", [
        _g("ctd_product", "Cond_PN", "text", "", "conductivity sensor product number"),
        _g("ctd_serial", "Cond_SN", "text", "", "conductivity sensor serial number"),
        _g("ctd_conductivity", "Cond", "float", "mS cm-1", "conductivity", "sea_water_electrical_conductivity"),
        _g("ctd_temperature", "Temp", "float", "degree_Celsius", "CTD temperature", "sea_water_temperature"),
        _g("salinity", "Sal", "float", "1", "practical salinity", "sea_water_practical_salinity"),
        _g("ctd_density", "Density", "float", "kg m-3", "sea water density", "sea_water_density"),
        _g("ctd_sound_speed", "SSpeed", "float", "m s-1", "speed of sound", "speed_of_sound_in_sea_water"),
    ]),
    _group("pump", "pump sequence", [
        _g("pump", "Pump", "text", "", "pump sequence status"),
    ]),
]

GROUP_BY_NAMES = {tuple(c.header for c in cols): (key, name, cols) for key, name, cols in GROUPS}


def board_column(header):
    """The board column a header name stands for, or None."""
    for c in BOARD_COLUMNS:
        if c.header == header:
            return c
    return None


def unknown_column(header, index):
    """A column the catalogue does not know (a newer board's): kept as text under a tidy name."""
    key = "".join(ch if ch.isalnum() else "_" for ch in header.lower()).strip("_") or f"column_{index}"
    return Column(f"x_{key}", header, "text", "", f"column '{header}' as the board named it")
