"""What quantized networks answer: trained models out of other packages, before and after."""
