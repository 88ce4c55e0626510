'''The simulated NetworkManager 1.42, one module per family of objects it serves.'''
