const translations = {
  en: {
    headerCloudid: 'Device identificator',
    descCloudid: 'Use this Cloud ID to add the device in your personal account:',
    noteCloudid: 'Note: Keep this ID secure as it provides access to your device.',
    backButton: '← Back to Home',
  },
  ru: {
    headerCloudid: 'Идентификатор устройства',
    descCloudid: 'Используйте этот Cloud ID для добавления устройства в личном кабинете:',
    noteCloudid: 'Примечание: Не публикуйте и не передавайте Cloud ID третьим лицам.',
    backButton: '← Назад',
  },
};

const elementIds = {
  headerCloudid: 'header-cloudid',
  descCloudid: 'desc-cloudid',
  noteCloudid: 'note-cloudid',
  backButton: 'back-button',
};

const language = storedLanguage();

document.addEventListener('DOMContentLoaded', () => {
  fillTexts(language, translations, elementIds);
});
