"""Reading what an HXC3 board logged: its data files, error log and float log, straight from a card
image or from copied files, turned into tidy CSV, CF NetCDF, plots, quality flags and battery-life
estimates."""
