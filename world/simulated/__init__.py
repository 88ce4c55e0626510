'''The simulated NetworkManager and ModemManager that the dbusmock templates in ../templates serve.'''
