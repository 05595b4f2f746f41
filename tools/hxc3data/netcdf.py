"""A deployment as a CF-1.8 NetCDF file: a single time series (featureType timeSeries) with its
station variable, time coordinate, one variable per logged value with units and standard names where
CF has them, a quality-flag variable beside each tested one, and the deployment's settings,
calibration coefficients and serial numbers as global attributes.

Written with netCDF4 rather than xarray: every attribute, type and fill value is set as written
here, and it needs no pandas; xarray and ncdump read the result.
"""

import datetime
import math
import re

import netCDF4
import numpy as np

from . import qc, table

TIME_UNITS = "seconds since 1970-01-01 00:00:00"
FLOAT_FILL = netCDF4.default_fillvals["f8"]
INT_FILL = netCDF4.default_fillvals["i4"]


def attribute_name(label):
    """A metadata label as an attribute name: "Def Sal (ppt)" -> "def_sal_ppt"."""
    name = re.sub(r"[^a-z0-9]+", "_", label.lower()).strip("_")
    return name if name and not name[0].isdigit() else f"m_{name}"


def _typed(value):
    """Numbers (coefficients, periods) as numbers, so a reader gets doubles; the rest as text."""
    try:
        number = float(value)
    except ValueError:
        return value
    return number if math.isfinite(number) else value


def _global_attributes(deployment, source_name):
    now = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")
    attrs = {
        "Conventions": "CF-1.8",
        "featureType": "timeSeries",
        "title": f"HXC3 pH sensor deployment {deployment.number} from {deployment.source}",
        "summary": "ISFET pH sensor on an HXC3 controller: cell voltages, temperature and pH, one sample per wake",
        "source": f"HXC3 sensor controller, firmware {deployment.meta('Version Info') or 'unknown'}",
        "history": f"{now} hxc3-data netcdf {source_name}",
        "date_created": now,
        "time_coverage_start": table.iso(deployment.start),
        "time_coverage_end": table.iso(deployment.end),
        "comment": table.TIME_NOTE,
    }
    if deployment.period:
        attrs["time_coverage_resolution"] = f"PT{deployment.period}S"
    seen = set()
    for label, value in deployment.metadata:
        name = attribute_name(label)
        if name in seen or name in attrs:
            continue  # a label given twice (the pump groups) keeps its first value
        seen.add(name)
        attrs[name] = _typed(value)
    return attrs


def time_series(deployment, flags):
    """The samples a time coordinate can hold: in time order, one per time (a later line with the
    time of an earlier one is a copy, or the clock was set back: it stays in the CSV only)."""
    kept, seen = [], set()
    for s, f in zip(deployment.samples, flags):
        if s.time is not None and s.time not in seen:
            seen.add(s.time)
            kept.append((s, f))
    kept.sort(key=lambda pair: pair[0].time)
    return [s for s, _ in kept], [f for _, f in kept]


def _values(samples, column):
    out = []
    for s in samples:
        v = s.values.get(column.key)
        if column.kind == "text":
            out.append("" if v is None else v.text)
        elif v is None or not v.finite:
            out.append(None)
        else:
            out.append(v.number)
    return out


def write(deployment, path, source_name, lat=None, lon=None):
    """Writes the NetCDF file; returns how many lines were left out of the time series."""
    samples, flags = time_series(deployment, qc.check(deployment))
    left_out = len(deployment.samples) - len(samples)
    with netCDF4.Dataset(path, "w", format="NETCDF4") as nc:
        nc.setncatts(_global_attributes(deployment, source_name))
        if left_out:
            nc.history += f"; {left_out} line(s) repeating an earlier sample's time left out"
        nc.createDimension("time", len(samples))
        _station(nc, deployment, lat, lon)
        t = nc.createVariable("time", "f8", ("time",))
        t.setncatts({"standard_name": "time", "long_name": "time of the sample", "units": TIME_UNITS,
                     "calendar": "standard", "axis": "T"})
        t[:] = [s.time.timestamp() for s in samples]
        n = nc.createVariable("sample", "i4", ("time",), fill_value=INT_FILL)
        n.setncatts({"long_name": "sample number (restarts with every deployment)", "coordinates": "lat lon"})
        n[:] = np.ma.masked_equal([INT_FILL if s.number is None else s.number for s in samples], INT_FILL)
        for column in table.table_columns(deployment):
            _variable(nc, samples, column, flags)
        f = nc.createVariable("qc_flag", "i1", ("time",))
        _flag_attributes(f, "quality flag of the sample (the worst of its variables')")
        f[:] = [x.flag for x in flags]
    return left_out


def _station(nc, deployment, lat, lon):
    station = nc.createVariable("station", str, ())
    station.setncatts({"cf_role": "timeseries_id", "long_name": "board serial number and deployment"})
    board = deployment.meta("Board SN").strip() or "unknown board"
    station[()] = f"{board} deployment {deployment.number}"
    for name, value, std, units in (("lat", lat, "latitude", "degrees_north"), ("lon", lon, "longitude", "degrees_east")):
        v = nc.createVariable(name, "f8", (), fill_value=FLOAT_FILL)
        v.setncatts({"standard_name": std, "units": units,
                     "comment": "given on the command line" if value is not None else "the board does not log it"})
        if value is not None:
            v[()] = value


def _variable(nc, samples, column, flags):
    values = _values(samples, column)
    if column.kind == "text":
        v = nc.createVariable(column.key, str, ("time",))
        v[:] = np.array(values, dtype=object)
    else:
        dtype, fill = ("i4", INT_FILL) if column.kind == "int" else ("f8", FLOAT_FILL)
        v = nc.createVariable(column.key, dtype, ("time",), fill_value=fill)
        v[:] = np.ma.masked_equal([fill if x is None else x for x in values], fill)
        v.units = column.units
    v.long_name = column.long_name
    v.board_name = column.header
    v.coordinates = "lat lon"
    if column.standard_name:
        v.standard_name = column.standard_name
    if column.key in qc.VARIABLES:
        name = f"{column.key}_qc"
        v.ancillary_variables = name
        f = nc.createVariable(name, "i1", ("time",))
        _flag_attributes(f, f"quality flag of {column.key}")
        if column.standard_name:
            f.standard_name = f"{column.standard_name} status_flag"
        f[:] = [x.flags.get(column.key, qc.MISSING) for x in flags]


def _flag_attributes(var, long_name):
    var.long_name = long_name
    var.flag_values = np.array(sorted(qc.FLAG_MEANINGS), dtype="i1")
    var.flag_meanings = " ".join(qc.FLAG_MEANINGS[k] for k in sorted(qc.FLAG_MEANINGS))
    var.conventions = "Argo/OceanSITES reference table 2"
