"""The accuracy of quantized networks: trained models from other packages, before and after."""
