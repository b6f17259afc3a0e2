const translations = {
  en: {
    redirectMessage: 'Redirecting to camera interface...',
    manualRedirectText:
      'If you are not redirected automatically, please click the button below:',
    manualSubmit: 'Continue to Camera Interface',
  },
  ru: {
    redirectMessage: 'Перенаправление в интерфейс камеры...',
    manualRedirectText:
      'Если вы не были перенаправлены автоматически, нажмите кнопку ниже:',
    manualSubmit: 'Перейти в интерфейс камеры',
  },
};

const elementIds = {
  redirectMessage: 'redirect-message',
  manualRedirectText: 'manual-redirect-text',
  manualSubmit: 'manual-submit',
};

const SUBMIT_DELAY = 1500; // ms

const language = storedLanguage();

function submitForm() {
  document.getElementById('redirectForm').submit();
}

document.addEventListener('DOMContentLoaded', () => {
  const timer = setTimeout(submitForm, SUBMIT_DELAY);
  document.getElementById('manual-submit').addEventListener('click', () => {
    // Without this the list would be posted twice when the answer is slow.
    clearTimeout(timer);
    submitForm();
  });
  fillTexts(language, translations, elementIds);
});
