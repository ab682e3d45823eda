// under construction
